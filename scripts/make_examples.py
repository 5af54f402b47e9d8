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


if __name__ == "__main__":
    os.makedirs(OUT, exist_ok=True)
    write("grid_dipole_dipole.dat", dipole_dipole)
    write("grid_pole_dipole.dat", pole_dipole)
    write("borehole.dat", borehole)
    write("topography.dat", topography)
    write("ip_chargeability.dat", ip)
    write("time_lapse.dat", time_lapse)
    write("grid_9x14.dat", grid_9x14)
