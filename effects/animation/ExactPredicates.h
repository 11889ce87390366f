// Exact orientation and in-circle signs for the triangulation. Each predicate
// evaluates its determinant in double with a forward error bound; only when
// the bound cannot settle the sign is the determinant recomputed exactly as a
// floating-point expansion (a sum of non-overlapping doubles whose largest
// term carries the sign). The inputs are the caller's floats (moved to the
// bounding box's corner when that is exact), so the signs are exact for every
// finite input and the mesh cannot fold or hold a flat triangle. Requires
// round-to-nearest double arithmetic without extended precision, which every
// x86-64 and ARM64 build has.
#pragma once

#include <cmath>
#include <cstring>

namespace Korvane {

namespace Exact {

#if defined(_MSC_VER)
#define KORVANE_NOINLINE __declspec(noinline)
#else
#define KORVANE_NOINLINE __attribute__((noinline))
#endif

constexpr double kEpsilon = 1.1102230246251565e-16;  // 2^-53
constexpr double kSplitter = 134217729.0;            // 2^27 + 1
constexpr double kOrientBound = (3.0 + 16.0 * kEpsilon) * kEpsilon;
constexpr double kInCircleBound = (10.0 + 96.0 * kEpsilon) * kEpsilon;

inline void TwoSum(double a, double b, double& x, double& y) {
  x = a + b;
  const double bv = x - a, av = x - bv;
  y = (a - av) + (b - bv);
}

inline void FastTwoSum(double a, double b, double& x, double& y) {
  x = a + b;
  y = b - (x - a);
}

inline void TwoDiff(double a, double b, double& x, double& y) {
  x = a - b;
  const double bv = a - x, av = x + bv;
  y = (a - av) + (bv - b);
}

inline void Split(double a, double& hi, double& lo) {
  const double c = kSplitter * a;
  hi = c - (c - a);
  lo = a - hi;
}

inline void TwoProductPresplit(double a, double b, double bhi, double blo, double& x, double& y) {
  x = a * b;
  double ahi, alo;
  Split(a, ahi, alo);
  const double err1 = x - ahi * bhi, err2 = err1 - alo * bhi, err3 = err2 - ahi * blo;
  y = alo * blo - err3;
}

// An expansion: components in increasing magnitude, none overlapping, zeros
// dropped (but never empty: zero is the one component 0.0).
template <int N>
struct Expansion {
  double v[N];
  int n = 0;
};

// h = e + f; h has room for en + fn components and aliases neither input.
inline int Sum(const double* e, int en, const double* f, int fn, double* h) {
  int ei = 0, fi = 0, hi = 0;
  double enow = e[0], fnow = f[0], q, qnew, hh;
  auto next_e = [&] { enow = ++ei < en ? e[ei] : 0.0; };
  auto next_f = [&] { fnow = ++fi < fn ? f[fi] : 0.0; };
  auto take_e = [&] { return (fnow > enow) == (fnow > -enow); };  // |e| <= |f|
  if (take_e()) {
    q = enow;
    next_e();
  } else {
    q = fnow;
    next_f();
  }
  if (ei < en && fi < fn) {
    if (take_e()) {
      FastTwoSum(enow, q, qnew, hh);
      next_e();
    } else {
      FastTwoSum(fnow, q, qnew, hh);
      next_f();
    }
    q = qnew;
    if (hh != 0.0) h[hi++] = hh;
    while (ei < en && fi < fn) {
      if (take_e()) {
        TwoSum(q, enow, qnew, hh);
        next_e();
      } else {
        TwoSum(q, fnow, qnew, hh);
        next_f();
      }
      q = qnew;
      if (hh != 0.0) h[hi++] = hh;
    }
  }
  while (ei < en) {
    TwoSum(q, enow, qnew, hh);
    next_e();
    q = qnew;
    if (hh != 0.0) h[hi++] = hh;
  }
  while (fi < fn) {
    TwoSum(q, fnow, qnew, hh);
    next_f();
    q = qnew;
    if (hh != 0.0) h[hi++] = hh;
  }
  if (q != 0.0 || hi == 0) h[hi++] = q;
  return hi;
}

template <int NE, int NF, int NH>
void Sum(const Expansion<NE>& e, const Expansion<NF>& f, Expansion<NH>& h) {
  static_assert(NH >= NE + NF, "sum does not fit");
  h.n = Sum(e.v, e.n, f.v, f.n, h.v);
}

// h = e * b; h has room for 2 en components.
inline int Scale(const double* e, int en, double b, double* h) {
  double bhi, blo, q, hh, p1, p0, sum;
  Split(b, bhi, blo);
  int hi = 0;
  TwoProductPresplit(e[0], b, bhi, blo, q, hh);
  if (hh != 0.0) h[hi++] = hh;
  for (int i = 1; i < en; ++i) {
    TwoProductPresplit(e[i], b, bhi, blo, p1, p0);
    TwoSum(q, p0, sum, hh);
    if (hh != 0.0) h[hi++] = hh;
    FastTwoSum(p1, sum, q, hh);
    if (hh != 0.0) h[hi++] = hh;
  }
  if (q != 0.0 || hi == 0) h[hi++] = q;
  return hi;
}

// h = e * f: one scaled copy of f per component of e, summed.
template <int NE, int NF, int NH>
void Multiply(const Expansion<NE>& e, const Expansion<NF>& f, Expansion<NH>& h) {
  static_assert(NH >= 2 * NE * NF, "product does not fit");
  double part[2 * NF];
  double acc[NH];
  h.n = Scale(f.v, f.n, e.v[0], h.v);
  for (int i = 1; i < e.n; ++i) {
    const int pn = Scale(f.v, f.n, e.v[i], part);
    const int an = Sum(h.v, h.n, part, pn, acc);  // at most 2 (i + 1) f.n components
    std::memcpy(h.v, acc, sizeof(double) * an);
    h.n = an;
  }
}

template <int N>
void Negate(Expansion<N>& e) {
  for (int i = 0; i < e.n; ++i) e.v[i] = -e.v[i];
}

// a - b exactly, as one or two components.
inline Expansion<2> Difference(double a, double b) {
  Expansion<2> d;
  double x, y;
  TwoDiff(a, b, x, y);
  if (y != 0.0) d.v[d.n++] = y;
  d.v[d.n++] = x;
  return d;
}

inline double SignOf(double v) { return v > 0.0 ? 1.0 : (v < 0.0 ? -1.0 : 0.0); }

// Rarely needed: kept out of line so its large stack frame does not burden
// every caller.
template <class T>
KORVANE_NOINLINE double Orient2dExact(const T* a, const T* b, const T* c) {
  const Expansion<2> acx = Difference(a[0], c[0]), acy = Difference(a[1], c[1]);
  const Expansion<2> bcx = Difference(b[0], c[0]), bcy = Difference(b[1], c[1]);
  Expansion<8> left, right;
  Multiply(acx, bcy, left);
  Multiply(acy, bcx, right);
  Negate(right);
  Expansion<16> det;
  Sum(left, right, det);
  return SignOf(det.v[det.n - 1]);
}

template <class T>
KORVANE_NOINLINE double InCircleExact(const T* a, const T* b, const T* c, const T* d) {
  const Expansion<2> adx = Difference(a[0], d[0]), ady = Difference(a[1], d[1]);
  const Expansion<2> bdx = Difference(b[0], d[0]), bdy = Difference(b[1], d[1]);
  const Expansion<2> cdx = Difference(c[0], d[0]), cdy = Difference(c[1], d[1]);
  // lift(u) * (v.x w.y - w.x v.y), summed over the three rotations.
  auto term = [](const Expansion<2>& ux, const Expansion<2>& uy, const Expansion<2>& vx,
                 const Expansion<2>& vy, const Expansion<2>& wx, const Expansion<2>& wy,
                 Expansion<512>& out) {
    Expansion<8> xx, yy, p, q;
    Multiply(ux, ux, xx);
    Multiply(uy, uy, yy);
    Expansion<16> lift, cross;
    Sum(xx, yy, lift);
    Multiply(vx, wy, p);
    Multiply(wx, vy, q);
    Negate(q);
    Sum(p, q, cross);
    Multiply(lift, cross, out);
  };
  Expansion<512> ta, tb, tc;
  term(adx, ady, bdx, bdy, cdx, cdy, ta);
  term(bdx, bdy, cdx, cdy, adx, ady, tb);
  term(cdx, cdy, adx, ady, bdx, bdy, tc);
  Expansion<1024> ab;
  Sum(ta, tb, ab);
  Expansion<1536> det;
  Sum(ab, tc, det);
  return SignOf(det.v[det.n - 1]);
}

}  // namespace Exact

// Positive when a, b, c turn counter-clockwise with y pointing up (clockwise
// on screen), negative the other way, 0 exactly when collinear.
template <class T>
inline double Orient2d(const T* a, const T* b, const T* c) {
  const double left = (double(a[0]) - c[0]) * (double(b[1]) - c[1]);
  const double right = (double(a[1]) - c[1]) * (double(b[0]) - c[0]);
  const double det = left - right;
  const double bound = Exact::kOrientBound * (std::fabs(left) + std::fabs(right));
  if (det > bound || -det > bound) return det;
  return Exact::Orient2dExact(a, b, c);
}

// Positive when d lies inside the circle through a, b, c taken
// counter-clockwise with y up; for triangles wound counter-clockwise on
// screen, as the mesh's are, inside is negative.
template <class T>
inline double InCircle2d(const T* a, const T* b, const T* c, const T* d) {
  const double adx = double(a[0]) - d[0], bdx = double(b[0]) - d[0], cdx = double(c[0]) - d[0];
  const double ady = double(a[1]) - d[1], bdy = double(b[1]) - d[1], cdy = double(c[1]) - d[1];
  const double bdxcdy = bdx * cdy, cdxbdy = cdx * bdy;
  const double cdxady = cdx * ady, adxcdy = adx * cdy;
  const double adxbdy = adx * bdy, bdxady = bdx * ady;
  const double alift = adx * adx + ady * ady;
  const double blift = bdx * bdx + bdy * bdy;
  const double clift = cdx * cdx + cdy * cdy;
  const double det = alift * (bdxcdy - cdxbdy) + blift * (cdxady - adxcdy) + clift * (adxbdy - bdxady);
  // Each |u.x v.y| + |v.x u.y| is at most half the sum of two lifts, so the
  // permanent is at most half the lifts' sum squared: a cheaper first bound.
  const double lifts = alift + blift + clift;
  if (std::fabs(det) > Exact::kInCircleBound * 0.5 * lifts * lifts) return det;
  const double permanent = (std::fabs(bdxcdy) + std::fabs(cdxbdy)) * alift +
                           (std::fabs(cdxady) + std::fabs(adxcdy)) * blift +
                           (std::fabs(adxbdy) + std::fabs(bdxady)) * clift;
  const double bound = Exact::kInCircleBound * permanent;
  if (det > bound || -det > bound) return det;
  return Exact::InCircleExact(a, b, c, d);
}

}  // namespace Korvane
