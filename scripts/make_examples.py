#!/usr/bin/env python3
"""Writes the small example data files of examples/.

Every file describes a survey over the same kind of ground: a 100 ohm-m
half-space with a 20 ohm-m body near the middle. The apparent resistivities
are those of the half-space lowered smoothly near the body: enough to see
what each section of the data file looks like, not a forward model.
"""
import math
import os

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "..", "examples")


def rho(points):
    """Apparent resistivity of a point: lower when its centre is near (9, 5)."""
    cx = sum(p[0] for p in points) / len(points)
    cy = sum(p[1] for p in points) / len(points)
    d2 = (cx - 9.0) ** 2 + (cy - 5.0) ** 2
    return 100.0 * (1.0 - 0.35 * math.exp(-d2 / 18.0))


def grid_lines(n, step):
    return [i * step for i in range(n)]


def write_header(f, title, xs, ys):
    f.write(title + "\n")
    f.write("%d,%d\n" % (len(xs), len(ys)))
    f.write("Nonuniform Grid\n")
    for caption, v in (("X-location of grid lines", xs), ("Y-location of grid lines", ys)):
        f.write(caption + "\n")
        f.write(" ".join("%.2f" % x for x in v) + "\n")


def write_electrodes(f, elecs, depths=False, borehole=False):
    f.write("Point Electrodes outside grid present\nNumber of point electrodes\n%d\n" % len(elecs))
    if depths:
        f.write("Subsurface point electrodes present\n")
        if borehole:
            f.write("Borehole format converted to subsurface point electrodes\n")
    f.write("Compressed format used for point electrodes coordinates\n")
    for i, e in enumerate(elecs):
        f.write("%4d " % (i + 1) + ",".join("%.3f" % v for v in e) + "\n")


def dipole_dipole_lines(xs, ys, a=2.0, nmax=5):
    pts = []
    for y in ys:
        for i in range(len(xs)):
            for n in range(1, nmax + 1):
                c1 = xs[i]
                c2 = c1 + a
                p1 = c1 - n * a
                p2 = p1 - a
                if p2 < xs[0] or c2 > xs[-1]:
                    continue
                pts.append(((c1, y), (c2, y), (p1, y), (p2, y)))
    return pts


def pole_dipole_lines(xs, ys, a=2.0, nmax=6):
    pts = []
    for y in ys:
        for i in range(len(xs)):
            for n in range(1, nmax + 1):
                c1 = xs[i]
                p1 = c1 + n * a
                p2 = p1 + a
                if p2 > xs[-1]:
                    continue
                pts.append(((c1, y), (p1, y), (p2, y)))
    return pts


def surface_grid():
    xs = grid_lines(10, 2.0)
    ys = grid_lines(6, 2.0)
    elecs = [(x, y, 0.0) for y in ys for x in xs]
    return xs, ys, elecs


def fmt_pos(p, depth=None):
    s = "%.3f %.3f" % (p[0], p[1])
    if depth is not None:
        s += " %.3f" % depth
    return s


def write(name, body):
    path = os.path.join(OUT, name)
    with open(path, "w") as f:
        body(f)
    print("wrote", path, os.path.getsize(path), "bytes")


def grid_9x14(f):
    xs = grid_lines(9, 2.5)
    ys = grid_lines(14, 2.5)
    elecs = [(x, y, 0.0) for y in ys for x in xs]
    write_header(f, "Dipole-dipole lines along x and y over a 9 by 14 electrode grid at 2.5 m", xs, ys)
    f.write("3\n")
    write_electrodes(f, elecs)
    along_x = dipole_dipole_lines(xs, ys, a=2.5, nmax=4)
    # Lines along y: the same arrays with x and y exchanged.
    along_y = [tuple((e[1], e[0]) for e in p) for p in dipole_dipole_lines(ys, xs, a=2.5, nmax=6)]
    pts = along_x + along_y
    f.write("%d\n" % len(pts))
    for p in pts:
        f.write("  ".join(fmt_pos(e) for e in p) + "  %.3f\n" % rho(p))
    f.write("0\n0\n0\n0\n0\n")


def dipole_dipole(f):
    xs, ys, elecs = surface_grid()
    write_header(f, "Dipole-dipole lines along x over a 10 by 6 electrode grid", xs, ys)
    f.write("3\n")
    write_electrodes(f, elecs)
    pts = dipole_dipole_lines(xs, ys)
    f.write("%d\n" % len(pts))
    for p in pts:
        f.write("  ".join(fmt_pos(e) for e in p) + "  %.3f\n" % rho(p))
    f.write("0\n0\n0\n0\n0\n")


def pole_dipole(f):
    xs, ys, elecs = surface_grid()
    write_header(f, "Pole-dipole lines along x over a 10 by 6 electrode grid", xs, ys)
    f.write("6\n")
    write_electrodes(f, elecs)
    pts = pole_dipole_lines(xs, ys)
    f.write("%d\n" % len(pts))
    for p in pts:
        f.write("  ".join(fmt_pos(e) for e in p) + "  %.3f\n" % rho(p))
    f.write("0\n0\n0\n0\n0\n")


def borehole(f):
    # Two boreholes at (4, 4) and (14, 4), eight electrodes each from 1 m to
    # 8 m, with a surface line between them; cross-hole bipole-bipole data.
    xs = grid_lines(10, 2.0)
    ys = grid_lines(5, 2.0)
    holes = [(4.0, 4.0), (14.0, 4.0)]
    elecs = [(hx, hy, 0.0, float(d)) for hx, hy in holes for d in range(1, 9)]
    elecs += [(x, 4.0, 0.0, 0.0) for x in xs]
    write_header(f, "Cross-borehole survey with subsurface point electrodes", xs, ys)
    f.write("11\n0\nType of data (0=Apparent Resistivity,1=Resistance)\n0\n")
    write_electrodes(f, elecs, depths=True, borehole=True)
    pts = []
    for d1 in range(1, 8):
        for d2 in range(1, 8):
            c1 = (4.0, 4.0, float(d1))
            c2 = (4.0, 4.0, float(d1 + 1))
            p1 = (14.0, 4.0, float(d2))
            p2 = (14.0, 4.0, float(d2 + 1))
            pts.append((c1, c2, p1, p2))
    f.write("%d\n" % len(pts))
    for p in pts:
        f.write("4 " + "  ".join(fmt_pos(e, e[2]) for e in p) + "  %.3f\n" % rho(p))
    f.write("0\n0\n0\n0\n0\n")


def topography(f):
    xs, ys, _ = surface_grid()
    def height(x, y):
        return 100.0 + 0.4 * x + 0.2 * y
    elecs = [(x, y, height(x, y)) for y in ys for x in xs]
    write_header(f, "Dipole-dipole lines on a sloping surface with a topography list", xs, ys)
    f.write("11\n3\nType of data (0=Apparent Resistivity,1=Resistance)\n0\n")
    write_electrodes(f, elecs)
    pts = dipole_dipole_lines(xs, ys)
    f.write("%d\n" % len(pts))
    for p in pts:
        f.write("4 " + "  ".join(fmt_pos(e) for e in p) + "  %.3f\n" % rho(p))
    f.write("Topography present\n1\nTopography in unstructured list\n"
            "Number of topography data points\n%d\nTopography data points (index,x,y,z)\n"
            % (len(xs) * len(ys)))
    k = 0
    for y in ys:
        for x in xs:
            k += 1
            f.write("%4d %.3f %.3f %.3f\n" % (k, x, y, height(x, y)))
    f.write("0\n0\n0\n0\n0\n")


def ip(f):
    xs, ys, elecs = surface_grid()
    write_header(f, "Dipole-dipole lines with chargeability", xs, ys)
    f.write("11\n3\nType of data (0=Apparent Resistivity,1=Resistance)\n0\n")
    write_electrodes(f, elecs)
    pts = dipole_dipole_lines(xs, ys)
    f.write("%d\n" % len(pts))
    f.write("IP present\nChargeability\nmV/V\n0.12,1.0\n")
    for p in pts:
        r = rho(p)
        m = 5.0 + 40.0 * (1.0 - r / 100.0)
        f.write("4 " + "  ".join(fmt_pos(e) for e in p) + "  %.3f  %.3f\n" % (r, m))
    f.write("0\n0\n0\n0\n0\n")


def time_lapse(f):
    xs, ys, elecs = surface_grid()
    write_header(f, "Dipole-dipole lines measured three times", xs, ys)
    f.write("11\n3\nType of data (0=Apparent Resistivity,1=Resistance)\n0\n")
    write_electrodes(f, elecs)
    pts = dipole_dipole_lines(xs, ys)
    f.write("%d\n" % len(pts))
    f.write("Time lapse data\nType of time lapse data (0=static,1=dynamic)\n0\n"
            "Number of time sections\n3\nTime unit\nDays\n"
            "Time series 2\n10.00\nTime series 3\n20.00\n")
    f.write("Error estimate for data present\nType of error estimate (0=same unit as data)\n0\n")
    for p in pts:
        r = rho(p)
        vals = [r, r * 0.95, r * 0.9]
        f.write("4 " + "  ".join(fmt_pos(e) for e in p) +
                "".join("  %.3f %.3f" % (v, 0.02 * v) for v in vals) + "\n")
    f.write("0\n0\n0\n0\n0\n")



# Field-like surveys for the forward model's accuracy checks (`check-mesh`):
# electrodes off the model grid lines, thin layers, a layered earth, sloping
# and rough ground, boreholes off the grid lines. Their values are the
# closed-form values of the ground each file describes, so the files are
# also consistent data sets.

def jitter(v, amp, seed):
    """A repeatable offset in [-amp, amp] (no random module: stable files)."""
    s = math.sin(seed * 12.9898 + v * 78.233) * 43758.5453
    return amp * (2.0 * (s - math.floor(s)) - 1.0)


def write_general_header(f, title, xs, ys, resistance=False):
    write_header(f, title, xs, ys)
    f.write("11\n0\nType of data (0=Apparent Resistivity,1=Resistance)\n%d\n"
            % (1 if resistance else 0))


def write_depths(f, depths):
    f.write("User defined depths to layers present\nNumber of layers\n%d\nDepth of layers\n"
            % len(depths))
    for i, d in enumerate(depths):
        f.write("%3d %12.4f\n" % (i + 1, d))


def line_arrays(line, kinds=("dd",), nmax=6, reversed_dipoles=False):
    """Arrays along one line of electrode indices: dipole-dipole n = 1..nmax
    (C2 C1 P1 P2; with `reversed_dipoles` also the reversed potential dipole
    of n = 1 and 3: negative geometric factors), Wenner alpha and pole-dipole (C1 P1 P2, both ways)."""
    out = []
    m = len(line)
    for i in range(m):
        for n in range(1, nmax + 1):
            if "dd" in kinds and i + n + 2 < m:
                c2, c1, p1, p2 = line[i], line[i + 1], line[i + n + 1], line[i + n + 2]
                out.append((c1, c2, p1, p2))
                if reversed_dipoles and n in (1, 3):
                    out.append((c1, c2, p2, p1))
            if "pd" in kinds:
                if i + n + 1 < m:
                    out.append((line[i], line[i + n], line[i + n + 1]))
                if i - n - 1 >= 0:
                    out.append((line[i], line[i - n], line[i - n - 1]))
        if "wenner" in kinds:
            for a in range(1, (m - 1 - i) // 3 + 1):
                out.append((line[i], line[i + 3 * a], line[i + a], line[i + 2 * a]))
    return out


def distance(a, b):
    return math.sqrt(sum((a[k] - b[k]) ** 2 for k in range(3)))


def transfer(arr, potential):
    """Four-term (or fewer) potential difference of an array (C1 C2 P1 P2,
    C1 P1 P2 or C1 P1), with `potential(c, p)` the potential of unit current."""
    if len(arr) == 4:
        c1, c2, p1, p2 = arr
        return potential(c1, p1) - potential(c1, p2) - potential(c2, p1) + potential(c2, p2)
    if len(arr) == 3:
        c1, p1, p2 = arr
        return potential(c1, p1) - potential(c1, p2)
    return potential(arr[0], arr[1])


def surface_potential(rho1):
    return lambda c, p: rho1 / (2.0 * math.pi * distance(c, p))


def two_layer_potential(rho1, rho2, h):
    k = (rho2 - rho1) / (rho2 + rho1)
    def v(c, p):
        r = math.hypot(c[0] - p[0], c[1] - p[1])
        s, kn = 1.0 / r, 1.0
        for n in range(1, 100000):
            kn *= k
            t = 2.0 * kn / math.sqrt(r * r + 4.0 * n * n * h * h)
            s += t
            if abs(t) < 1e-13:
                break
        return rho1 * s / (2.0 * math.pi)
    return v


def write_data_lines(f, arrays, value, pos):
    """`value(arr)` the datum, `pos(e)` the text of one electrode."""
    f.write("%d\n" % len(arrays))
    for arr in arrays:
        f.write("%d " % len(arr) + "  ".join(pos(e) for e in arr) + "  %.6g\n" % value(arr))


def apparent(arr, potential, geometric):
    """Apparent resistivity: the transfer resistance over the flat-ground
    (or image form) factor of the same array."""
    return transfer(arr, potential) / transfer(arr, geometric)


def grid_survey(nx, ny, step, off=0.0, seed=1):
    """Electrodes of an nx by ny grid, moved off the model grid lines by up
    to `off` of the spacing; lines along x and along y."""
    xs = grid_lines(nx, step)
    ys = grid_lines(ny, step)
    elec = {}
    for j in range(ny):
        for i in range(nx):
            dx = jitter(i + 31 * j, off * step, seed) if 0 < i < nx - 1 else 0.0
            dy = jitter(i + 31 * j, off * step, seed + 7) if 0 < j < ny - 1 else 0.0
            elec[(i, j)] = (xs[i] + dx, ys[j] + dy, 0.0)
    lines = [[elec[(i, j)] for i in range(nx)] for j in range(ny)]
    lines += [[elec[(i, j)] for j in range(ny)] for i in range(nx)]
    return xs, ys, [elec[(i, j)] for j in range(ny) for i in range(nx)], lines


def flat_grid_file(f, title, kinds, nmax, value, off=0.0, depths=None):
    """A 9 by 14 electrode grid at 2.5 m on flat ground (electrodes up to
    `off` spacings off the grid lines), arrays `kinds` along every line,
    `value(arr)` the datum, optional user layer depths."""
    xs, ys, elecs, lines = grid_survey(9, 14, 2.5, off=off)
    write_general_header(f, title, xs, ys)
    write_electrodes(f, elecs)
    if depths:
        write_depths(f, depths)
    arrays = [a for ln in lines for a in line_arrays(ln, kinds, nmax=nmax)]
    write_data_lines(f, arrays, value, lambda e: fmt_pos(e))
    f.write("0\n0\n0\n0\n0\n")


def field_half_space(f):
    flat_grid_file(f, "Half-space of 100 ohm-m: 9 by 14 electrodes at 2.5 m, moved up "
                   "to 0.3 spacings off the grid lines", ("dd", "pd"), 4, lambda a: 100.0, off=0.3)


def field_thin_layers(f):
    flat_grid_file(f, "Half-space of 100 ohm-m under user layers 0.5 m thick "
                   "(0.2 of the 2.5 m spacing) down to 3 m", ("dd",), 6, lambda a: 100.0,
                   depths=[0.5, 1.0, 1.5, 2.0, 2.5, 3.0, 4.0, 5.0, 6.5, 8.0, 10.0, 12.5])


def field_two_layer(f):
    two = two_layer_potential(100.0, 10.0, 3.0)
    flat = surface_potential(1.0)
    flat_grid_file(f, "Two-layer earth: 100 ohm-m over 10 ohm-m from 3 m "
                   "(model field_two_layer_model.txt)", ("dd", "pd", "wenner"), 6,
                   lambda a: apparent(a, two, flat),
                   depths=[1.0, 2.0, 3.0, 4.0, 5.25, 6.75, 8.5, 10.5, 13.0])


def field_two_layer_model(f):
    f.write("# Two-layer earth of field_two_layer.dat: 100 ohm-m from the surface to\n"
            "# 3 m over a 10 ohm-m half-space.\n"
            "background 10\nlayer 0 3 100\n")


def slope(deg):
    def body(f):
        t = math.tan(math.radians(deg))
        xs, ys, flat_elecs, _ = grid_survey(9, 14, 2.5, off=0.3, seed=deg)
        elecs = [(e[0], e[1], 50.0 + t * e[0]) for e in flat_elecs]
        nx, ny = 9, 14
        lines = [[elecs[i + nx * j] for i in range(nx)] for j in range(ny)]
        lines += [[elecs[i + nx * j] for j in range(ny)] for i in range(nx)]
        write_general_header(f, "Resistances over a 100 ohm-m half-space under a plane sloping "
                             "%d degrees along x, electrodes on the plane off the grid lines"
                             % deg, xs, ys, resistance=True)
        write_electrodes(f, elecs)
        arrays = [a for ln in lines
                  for a in line_arrays(ln, ("dd", "pd"), nmax=5, reversed_dipoles=True)]
        exact = surface_potential(100.0)  # 3-D distances on the plane
        write_data_lines(f, arrays, lambda a: transfer(a, exact), lambda e: fmt_pos(e))
        f.write("Topography present\n1\nTopography in unstructured list\n"
                "Number of topography data points\n%d\nTopography data points (index,x,y,z)\n"
                % len(elecs))
        for k, e in enumerate(elecs):
            f.write("%4d %.3f %.3f %.3f\n" % (k + 1, e[0], e[1], e[2]))
        f.write("0\n0\n0\n0\n0\n")
    return body


def field_boreholes(f):
    """Four boreholes a few tenths of the spacing off the grid lines, nine
    electrodes each from 1.3 m to 6.9 m, and a surface line through them."""
    xs = grid_lines(11, 2.0)
    ys = grid_lines(9, 2.0)
    holes = [(4.6, 4.7), (15.3, 4.4), (4.5, 11.6), (15.7, 11.3)]
    depths = [1.3 + 0.7 * k for k in range(9)]
    holes_e = [[(hx, hy, d) for d in depths] for hx, hy in holes]
    surface = [(1.0 + 2.0 * k + jitter(k, 0.4, 3), 8.2, 0.0) for k in range(10)]
    elecs = [e for h in holes_e for e in h] + surface
    write_header(f, "Four boreholes off the grid lines, nine electrodes each at 1.3 to 6.9 m, "
                 "and a surface line", xs, ys)
    f.write("11\n0\nType of data (0=Apparent Resistivity,1=Resistance)\n0\n")
    write_electrodes(f, [(e[0], e[1], 0.0, e[2]) for e in elecs], depths=True, borehole=True)
    arrays = []
    for a in range(4):
        for b in range(4):
            if a == b:
                continue
            for i in range(8):
                for j in range(0, 8, 2):
                    arrays.append((holes_e[a][i], holes_e[a][i + 1], holes_e[b][j], holes_e[b][j + 1]))
        # In-hole Wenner and pole-dipole along each borehole.
        arrays += line_arrays(holes_e[a], ("wenner", "pd"), nmax=3)
    for a in range(4):
        for k in range(0, 10, 3):
            arrays.append((surface[k], holes_e[a][4], surface[(k + 4) % 10], holes_e[a][8]))
    arrays += line_arrays(surface, ("dd",), nmax=4)
    write_data_lines(f, arrays, lambda a: 100.0,
                     lambda e: "%.3f %.3f %.3f" % (e[0], e[1], e[2]))
    f.write("0\n0\n0\n0\n0\n")


def rough_height(x, y):
    # Relief of about 10 % of the survey's length, slopes up to 30 degrees,
    # and bumps a few cells across on the hillside.
    return (120.0 + 4.0 * math.sin(2 * math.pi * x / 75.0 + 0.4)
            + 1.4 * math.cos(2 * math.pi * y / 45.0) * math.sin(2 * math.pi * x / 90.0)
            + 0.35 * math.sin(2 * math.pi * (x + 0.6 * y) / 14.0) + 0.04 * x)


def field_rough_topography(f):
    """577 electrodes at 4 to 5 m, not on the grid lines, over rough ground."""
    nx, ny = 24, 24
    step = 4.5
    xs = grid_lines(nx + 1, 4.5)
    ys = grid_lines(ny + 1, 4.5)
    elec = {}
    for j in range(ny):
        for i in range(nx):
            x = 1.2 + i * step + jitter(i + 57 * j, 0.5, 11)
            y = 1.1 + j * step + jitter(i + 57 * j, 0.5, 13)
            # Elevations as a GPS records them: 0.2 m of scatter.
            elec[(i, j)] = (x, y, rough_height(x, y) + jitter(i + 57 * j, 0.2, 17))
    elecs = [elec[(i, j)] for j in range(ny) for i in range(nx)]
    remote = (xs[-1] - 0.8, ys[-1] - 0.7)
    elecs.append((remote[0], remote[1], rough_height(*remote)))
    lines = [[elec[(i, j)] for i in range(nx)] for j in range(ny)]
    lines += [[elec[(i, j)] for j in range(ny)] for i in range(1, nx, 2)]
    write_general_header(f, "Rough ground: 577 electrodes at 4 to 5 m off the grid lines over "
                         "about 11 m of relief, slopes to 30 degrees, 100 ohm-m", xs, ys)
    write_electrodes(f, elecs)
    arrays = [a for ln in lines for a in line_arrays(ln, ("dd",), nmax=4)]
    arrays += [(elecs[k], elecs[k + 1], elecs[-1]) for k in range(0, 20)]
    write_data_lines(f, arrays, lambda a: 100.0, lambda e: fmt_pos(e))
    f.write("Topography present\n1\nTopography in unstructured list\n"
            "Number of topography data points\n%d\nTopography data points (index,x,y,z)\n"
            % len(elecs))
    for k, e in enumerate(elecs):
        f.write("%4d %.3f %.3f %.3f\n" % (k + 1, e[0], e[1], e[2]))
    f.write("0\n0\n0\n0\n0\n")


if __name__ == "__main__":
    os.makedirs(OUT, exist_ok=True)
    write("grid_dipole_dipole.dat", dipole_dipole)
    write("grid_pole_dipole.dat", pole_dipole)
    write("borehole.dat", borehole)
    write("topography.dat", topography)
    write("ip_chargeability.dat", ip)
    write("time_lapse.dat", time_lapse)
    write("grid_9x14.dat", grid_9x14)
    write("field_half_space.dat", field_half_space)
    write("field_thin_layers.dat", field_thin_layers)
    write("field_two_layer.dat", field_two_layer)
    write("field_two_layer_model.txt", field_two_layer_model)
    write("field_slope11.dat", slope(11))
    write("field_slope20.dat", slope(20))
    write("field_boreholes.dat", field_boreholes)
    write("field_rough_topography.dat", field_rough_topography)
