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
