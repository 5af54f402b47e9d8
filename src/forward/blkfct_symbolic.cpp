// Structure of the block Cholesky factor: elimination tree, postorder,
// column counts, supernodes (fundamental, then amalgamated where few zeros
// are added), row lists and the update lists of the left-looking
// factorisation.
#include <metis.h>

#include <algorithm>
#include <new>

#include "core/trace.h"
#include "forward/blkfct.h"

namespace {

// Elimination tree of the permuted graph (Liu's algorithm with path
// compression): parent[j] from 0, -1 at a root.
void Elimination_Tree(int64_t n, const int *xadj, const int *adjncy, const int *perm,
                      const int *invp, std::vector<int> &parent) {
  std::vector<int> ancestor(n, -1);
  parent.assign(n, -1);
  for (int64_t j = 0; j < n; j++) {
    const int old = perm[j] - 1;
    for (int k = xadj[old] - 1; k < xadj[old + 1] - 1; k++) {
      int r = invp[adjncy[k] - 1] - 1;
      if (r >= j)
        continue;
      while (ancestor[r] != -1 && ancestor[r] != j) {
        const int next = ancestor[r];
        ancestor[r] = static_cast<int>(j);
        r = next;
      }
      if (ancestor[r] == -1) {
        ancestor[r] = static_cast<int>(j);
        parent[r] = static_cast<int>(j);
      }
    }
  }
}

// Depth-first postorder of a forest: post[k] is the node at position k.
// Children are visited in increasing order, so an order that is already a
// postorder stays as it is.
std::vector<int> Postorder(const std::vector<int> &parent) {
  const int64_t n = static_cast<int64_t>(parent.size());
  std::vector<int> head(n, -1), next(n, -1), post, stack;
  for (int64_t j = n - 1; j >= 0; j--)
    if (parent[j] >= 0) {
      next[j] = head[parent[j]];
      head[parent[j]] = static_cast<int>(j);
    }
  post.reserve(n);
  for (int64_t root = 0; root < n; root++) {
    if (parent[root] >= 0)
      continue;
    stack.push_back(static_cast<int>(root));
    while (!stack.empty()) {
      const int top = stack.back();
      if (head[top] >= 0) {
        const int child = head[top];
        head[top] = next[child];
        stack.push_back(child);
      } else {
        stack.pop_back();
        post.push_back(top);
      }
    }
  }
  return post;
}

// Entries of each column of the factor, diagonal included, by walking each
// row's subtree: O(entries of the factor).
void Column_Counts(int64_t n, const int *xadj, const int *adjncy, const int *perm, const int *invp,
                   const std::vector<int> &parent, std::vector<int64_t> &cc) {
  std::vector<int> mark(n, -1);
  cc.assign(n, 1);
  for (int64_t i = 0; i < n; i++) {
    mark[i] = static_cast<int>(i);
    const int old = perm[i] - 1;
    for (int k = xadj[old] - 1; k < xadj[old + 1] - 1; k++) {
      int r = invp[adjncy[k] - 1] - 1;
      if (r >= i)
        continue;
      while (mark[r] != i) {
        cc[r]++;
        mark[r] = static_cast<int>(i);
        r = parent[r];
      }
    }
  }
}

// Whether merging gives an acceptable share of explicit zeros for the
// merged width (small supernodes always merge; wider ones only when the
// zeros stay a small share).
bool Merge_Pays(int64_t width, double zero_share) {
  if (width <= 4)
    return true;
  if (width <= 16)
    return zero_share < 0.8;
  if (width <= 48)
    return zero_share < 0.1;
  return zero_share < 0.05;
}

int64_t Trapezoid(int64_t width, int64_t rows) {
  return width * rows - width * (width - 1) / 2;
}

} // namespace

int mnd_adj(const int *xadj, const int *adjncy, int n, int *perm, int *invp) {
  // METIS may reorder its input: it works on copies.
  std::vector<idx_t> x(xadj, xadj + n + 1), a(adjncy, adjncy + std::max(xadj[n] - 1, 0));
  std::vector<idx_t> p(n), ip(n);
  idx_t options[METIS_NOPTIONS];
  METIS_SetDefaultOptions(options);
  options[METIS_OPTION_NUMBERING] = 1;
  idx_t nv = n;
  if (a.empty())
    a.push_back(0);
  const int r = METIS_NodeND(&nv, x.data(), a.data(), nullptr, options, p.data(), ip.data());
  if (r != METIS_OK)
    return r;
  for (int i = 0; i < n; i++) {
    perm[i] = static_cast<int>(p[i]);
    invp[i] = static_cast<int>(ip[i]);
  }
  return 0;
}

void Blkfct::Free() {
  *this = Blkfct();
}

int Blkfct::Symbolic_Factorization(int64_t n, const int *xadj, const int *adjncy,
                                   const int *perm_in, const int *invp_in) try {
  const int keep_relax = relax;
  Free();
  relax = keep_relax;
  neqns_ll = n;
  nnza = n > 0 ? xadj[n] - 1 : 0;
  std::vector<int> parent;
  Elimination_Tree(n, xadj, adjncy, perm_in, invp_in, parent);
  // The postorder keeps every subtree's columns together.
  const std::vector<int> post = Postorder(parent);
  perm.resize(n);
  invp.resize(n);
  std::vector<int> pos(n);
  for (int64_t k = 0; k < n; k++) {
    perm[k] = perm_in[post[k]];
    invp[perm[k] - 1] = static_cast<int>(k + 1);
    pos[post[k]] = static_cast<int>(k);
  }
  {
    std::vector<int> p2(n);
    for (int64_t k = 0; k < n; k++)
      p2[k] = parent[post[k]] < 0 ? -1 : pos[parent[post[k]]];
    parent.swap(p2);
  }
  std::vector<int64_t> cc;
  Column_Counts(n, xadj, adjncy, perm.data(), invp.data(), parent, cc);

  // Fundamental supernodes: a chain of single children whose counts fall by
  // one column at a time.
  std::vector<int> nchild(n, 0);
  for (int64_t j = 0; j < n; j++)
    if (parent[j] >= 0)
      nchild[parent[j]]++;
  std::vector<int64_t> first, width, rows, zeros;
  for (int64_t j = 0; j < n; j++) {
    const bool start = j == 0 || parent[j - 1] != j || cc[j - 1] != cc[j] + 1 || nchild[j] != 1;
    if (start) {
      first.push_back(j);
      width.push_back(0);
      rows.push_back(cc[j]);
      zeros.push_back(0);
    }
    width.back()++;
  }
  // Amalgamation: a supernode merges into the next one when it is that
  // supernode's last child (their columns are contiguous) and the explicit
  // zeros stay few for the merged width.
  std::vector<int64_t> mf, mw, mr, mz;
  for (size_t s = 0; s < first.size(); s++) {
    if (relax && !mf.empty()) {
      const size_t p = mf.size() - 1;
      const int64_t last = mf[p] + mw[p] - 1;
      if (last + 1 == first[s] && parent[last] >= first[s] && parent[last] < first[s] + width[s]) {
        const int64_t w = mw[p] + width[s], r = mw[p] + rows[s];
        const int64_t added =
            Trapezoid(w, r) - Trapezoid(mw[p], mr[p]) - Trapezoid(width[s], rows[s]);
        const int64_t z = mz[p] + zeros[s] + added;
        if (Merge_Pays(w, static_cast<double>(z) / static_cast<double>(Trapezoid(w, r)))) {
          mw[p] = w;
          mr[p] = r;
          mz[p] = z;
          continue;
        }
      }
    }
    mf.push_back(first[s]);
    mw.push_back(width[s]);
    mr.push_back(rows[s]);
    mz.push_back(zeros[s]);
  }
  nsuper = static_cast<int64_t>(mf.size());
  xsuper.resize(nsuper + 1);
  snode.resize(n);
  for (int64_t J = 0; J < nsuper; J++) {
    xsuper[J] = mf[J];
    for (int64_t j = mf[J]; j < mf[J] + mw[J]; j++)
      snode[j] = static_cast<int>(J);
  }
  xsuper[nsuper] = n;
  sparent.assign(nsuper, -1);
  for (int64_t J = 0; J < nsuper; J++) {
    const int pc = parent[xsuper[J + 1] - 1];
    sparent[J] = pc < 0 ? -1 : snode[pc];
  }

  // Row lists: the supernode's own columns, the rows of its columns' matrix
  // entries below it and the rows of its children below it.
  xlindx.resize(nsuper + 1);
  xlindx[0] = 0;
  for (int64_t J = 0; J < nsuper; J++)
    xlindx[J + 1] = xlindx[J] + mr[J];
  nofsub = xlindx[nsuper];
  lindx.resize(nofsub);
  std::vector<int> chead(nsuper, -1), cnext(nsuper, -1), marker(n, -1);
  for (int64_t J = nsuper - 1; J >= 0; J--)
    if (sparent[J] >= 0) {
      cnext[J] = chead[sparent[J]];
      chead[sparent[J]] = static_cast<int>(J);
    }
  for (int64_t J = 0; J < nsuper; J++) {
    const int64_t f = xsuper[J], l = xsuper[J + 1] - 1;
    int64_t at = xlindx[J];
    for (int64_t j = f; j <= l; j++) {
      lindx[at++] = static_cast<int>(j);
      marker[j] = static_cast<int>(J);
    }
    auto add = [&](int r) {
      if (r > l && marker[r] != J) {
        marker[r] = static_cast<int>(J);
        lindx[at++] = r;
      }
    };
    for (int64_t j = f; j <= l; j++) {
      const int old = perm[j] - 1;
      for (int k = xadj[old] - 1; k < xadj[old + 1] - 1; k++)
        add(invp[adjncy[k] - 1] - 1);
    }
    for (int C = chead[J]; C >= 0; C = cnext[C])
      for (int64_t k = xlindx[C] + Width(C); k < xlindx[C + 1]; k++)
        add(lindx[k]);
    if (at != xlindx[J + 1]) {
      TRACE("Symbolic_Factorization row count error supernode %lld rows %lld expected %lld\n",
            static_cast<long long>(J), static_cast<long long>(at - xlindx[J]),
            static_cast<long long>(mr[J]));
      return 2;
    }
    std::sort(lindx.begin() + xlindx[J] + (l - f + 1), lindx.begin() + at);
  }

  // Panels.
  xpanel.resize(nsuper + 1);
  xpanel[0] = 0;
  nofnz = 0;
  flops = 0.0;
  for (int64_t J = 0; J < nsuper; J++) {
    const int64_t w = Width(J), r = Rows(J);
    xpanel[J + 1] = xpanel[J] + w * r;
    for (int64_t c = 0; c < w; c++) {
      const double len = static_cast<double>(r - c);
      flops += len * len;
    }
    nofnz += Trapezoid(w, r);
  }
  panel_values = xpanel[nsuper];

  // Update lists: supernode K updates each supernode that holds one of its
  // rows below its own columns; the rows of one target are contiguous.
  xupd.assign(nsuper + 1, 0);
  for (int pass = 0; pass < 2; pass++) {
    std::vector<int64_t> fill;
    if (pass == 1) {
      for (int64_t J = 0; J < nsuper; J++)
        xupd[J + 1] += xupd[J];
      upd_snode.resize(xupd[nsuper]);
      upd_first.resize(xupd[nsuper]);
      fill.assign(xupd.begin(), xupd.end() - 1);
    }
    for (int64_t K = 0; K < nsuper; K++) {
      int last = -1;
      for (int64_t k = xlindx[K] + Width(K); k < xlindx[K + 1]; k++) {
        const int T = snode[lindx[k]];
        if (T == last)
          continue;
        last = T;
        if (pass == 0) {
          xupd[T + 1]++;
        } else {
          upd_snode[fill[T]] = static_cast<int>(K);
          upd_first[fill[T]++] = static_cast<int>(k - xlindx[K]);
        }
      }
    }
  }
  {
    int64_t narrow = 0, narrow_entries = 0;
    for (int64_t J = 0; J < nsuper; J++)
      if (Width(J) < 16) {
        narrow++;
        narrow_entries += Trapezoid(Width(J), Rows(J));
      }
    TRACE("Supernodes %lld, %lld narrower than 16 holding %.1f %% of the entries\n",
          static_cast<long long>(nsuper), static_cast<long long>(narrow),
          100.0 * static_cast<double>(narrow_entries) /
              static_cast<double>(std::max<int64_t>(nofnz, 1)));
  }
  TRACE("Symbolic_Factorization neqns_ll %lld nnza %lld nofnz %lld nofsub %lld\n",
        static_cast<long long>(neqns_ll), static_cast<long long>(nnza),
        static_cast<long long>(nofnz), static_cast<long long>(nofsub));
  return 0;
} catch (const std::bad_alloc &) {
  Free();
  return 1;
}
