# Warnings and floating point rules shared by every target. Both backends must give the
# same bits, so no contraction of a*b+c into an FMA anywhere unless written as fmaf.
add_library(qv_build_flags INTERFACE)
target_compile_options(qv_build_flags INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-Wall -Wextra -ffp-contract=off>
  $<$<COMPILE_LANGUAGE:CUDA>:--fmad=false -prec-div=true -prec-sqrt=true
    -Xcompiler=-Wall,-Wextra,-ffp-contract=off --expt-relaxed-constexpr>)
if(QV_SANITIZE)
  target_compile_options(qv_build_flags INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-fsanitize=address,undefined -fno-omit-frame-pointer>
    $<$<COMPILE_LANGUAGE:CUDA>:-Xcompiler=-fsanitize=address,-fsanitize=undefined,-fno-omit-frame-pointer>)
  target_link_options(qv_build_flags INTERFACE -fsanitize=address,undefined)
endif()
if(QV_TSAN)
  target_compile_options(qv_build_flags INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-fsanitize=thread -fno-omit-frame-pointer>
    $<$<COMPILE_LANGUAGE:CUDA>:-Xcompiler=-fsanitize=thread,-fno-omit-frame-pointer>)
  target_link_options(qv_build_flags INTERFACE -fsanitize=thread)
endif()
# fmaf is exact whether the processor fuses or a library routine does, so the bits stay; with
# the instruction the host backend's arithmetic stays inline, and with AVX2 its row runners
# vectorise eight floats wide. Only where the build machine has both (x86-64 before Haswell
# would fault), and never on other architectures' defaults (aarch64 fuses natively).
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
  include(CheckCXXSourceRuns)
  set(CMAKE_REQUIRED_FLAGS "-mfma -mavx2")
  check_cxx_source_runs(
    "int main() { return __builtin_cpu_supports(\"fma\") && __builtin_cpu_supports(\"avx2\") ? 0 : 1; }"
    QV_HOST_HAS_AVX2_FMA)
  unset(CMAKE_REQUIRED_FLAGS)
  option(QV_HOST_AVX2 "Use the processor's AVX2 and FMA instructions in host code"
         ${QV_HOST_HAS_AVX2_FMA})
  if(QV_HOST_AVX2)
    target_compile_options(qv_build_flags INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-mavx2 -mfma>
                                                    $<$<COMPILE_LANGUAGE:CUDA>:-Xcompiler=-mavx2,-mfma>)
    # Sixteen floats wide for the row runners alone, where the build machine has AVX-512.
    set(CMAKE_REQUIRED_FLAGS "-mavx512f -mavx512bw")
    check_cxx_source_runs(
      "int main() { return __builtin_cpu_supports(\"avx512f\") && __builtin_cpu_supports(\"avx512bw\") ? 0 : 1; }"
      QV_HOST_HAS_AVX512)
    unset(CMAKE_REQUIRED_FLAGS)
    option(QV_HOST_AVX512 "Use AVX-512 in the host backend's row runners" ${QV_HOST_HAS_AVX512})
  endif()
endif()
