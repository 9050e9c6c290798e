# Kernels are compiled once per instruction-set level; see kernels/level.h. Every file of kernels/ is one, apart from the
# choice of the level itself. Products of whole numbers exist where integers are faster than floats: kernels/whole.h.

file(GLOB opkit_kernels CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/kernels/*.cpp)
set(opkit_whole ${PROJECT_SOURCE_DIR}/kernels/whole.cpp)
list(REMOVE_ITEM opkit_kernels ${PROJECT_SOURCE_DIR}/kernels/level.cpp ${opkit_whole})

set(opkit_level_baseline "")
set(opkit_level_avx2 -mavx2 -mbmi2 -mfma)
set(opkit_level_avx512 -mavx2 -mbmi2 -mfma -mavx512f -mavx512bw -mavx512dq -mavx512vl -mavx512cd -mprefer-vector-width=512)
set(opkit_level_vnni ${opkit_level_avx512} -mavx512vnni)

# A library of object files: the level, then its sources. Its objects join opkit_kernel_objects.
function(opkit_kernel_library level)
  opkit_object_library(opkit_kernels_${level} ${ARGN})
  target_compile_definitions(opkit_kernels_${level} PRIVATE OPKIT_LEVEL=${level} OPKIT_LEVEL_${level}=1)
  # The compiler's own intrinsics header trips -Wmaybe-uninitialized.
  target_compile_options(opkit_kernels_${level} PRIVATE ${opkit_level_${level}}
                         $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized> -Wno-uninitialized)
endfunction()

opkit_kernel_library(baseline ${opkit_kernels})
opkit_kernel_library(avx2 ${opkit_kernels} ${opkit_whole})
opkit_kernel_library(avx512 ${opkit_kernels})
opkit_kernel_library(vnni ${opkit_whole})
target_compile_definitions(opkit_kernels_vnni PRIVATE OPKIT_LEVEL_avx512=1)  # the vectors are those of AVX-512

# Steps of f32 products may fuse in these objects only.
set(opkit_level_avx2_fused ${opkit_level_avx2})
set(opkit_level_avx512_fused ${opkit_level_avx512})
foreach(level IN ITEMS avx2 avx512)
  opkit_kernel_library(${level}_fused ${PROJECT_SOURCE_DIR}/kernels/gemm.cpp)
  target_compile_definitions(opkit_kernels_${level}_fused PRIVATE OPKIT_LEVEL_${level}=1 OPKIT_FUSED=1)
endforeach()

set(opkit_kernel_libraries opkit_kernels_baseline opkit_kernels_avx2 opkit_kernels_avx512 opkit_kernels_vnni
                           opkit_kernels_avx2_fused opkit_kernels_avx512_fused)
set(opkit_kernel_objects "")
foreach(library IN LISTS opkit_kernel_libraries)
  list(APPEND opkit_kernel_objects $<TARGET_OBJECTS:${library}>)
endforeach()
