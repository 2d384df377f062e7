#pragma once
// A fixed square matrix of N x N elements of T, row-major: element (i, j) at i N + j. An
// aggregate, so that tmat<float, 3>{{1, 0, 0, 0, 1, 0, 0, 0, 1}} spells its rows in order and
// tmat<double, 5>{} is all zeros.
namespace Qv {

template <typename T, int N>
struct tmat {
  static_assert(N > 0, "a matrix has at least one row");
  using value_type = T;
  static constexpr int iSize = N;

  T m[N * N];

  T& operator()(int i, int j) { return m[i * N + j]; }
  const T& operator()(int i, int j) const { return m[i * N + j]; }
  T* data() { return m; }
  const T* data() const { return m; }

  static tmat Identity() {
    tmat x{};
    for (int i = 0; i < N; ++i) x(i, i) = T(1);
    return x;
  }
};

}  // namespace Qv
