# Kernels are compiled once per instruction-set level; see kernels/level.h. Every file of kernels/ is one, apart from the
# choice of the level itself.

file(GLOB opkit_kernels CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/kernels/*.cpp)
list(REMOVE_ITEM opkit_kernels ${PROJECT_SOURCE_DIR}/kernels/level.cpp)

set(opkit_level_baseline "")
set(opkit_level_avx2 -mavx2 -mbmi2 -mfma)
set(opkit_level_avx512 -mavx2 -mbmi2 -mfma -mavx512f -mavx512bw -mavx512dq -mavx512vl -mavx512cd -mprefer-vector-width=512)
foreach(level IN ITEMS baseline avx2 avx512)
  opkit_object_library(opkit_kernels_${level} ${opkit_kernels})
  target_compile_definitions(opkit_kernels_${level} PRIVATE OPKIT_LEVEL=${level} OPKIT_LEVEL_${level}=1)
  # The compiler's own intrinsics header trips -Wmaybe-uninitialized.
  target_compile_options(opkit_kernels_${level} PRIVATE ${opkit_level_${level}}
                         $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized> -Wno-uninitialized)
endforeach()
