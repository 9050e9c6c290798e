# libopkit.so and the object library behind it. One line here adds a source file.

set(opkit_sources
    common/broadcast.cpp
    common/copy.cpp
    common/bounded_memory.cpp
    common/float_compare.cpp
    common/report.cpp
    common/row_layout.cpp
    common/shape.cpp
    kernels/level.cpp
    runtime/dump.cpp
    runtime/forward.cpp
    runtime/frame.cpp
    runtime/layer_parser.cpp
    runtime/operator_table.cpp
    runtime/profiling.cpp
    runtime/request_check.cpp
    runtime/resolvers.cpp
    runtime/version.cpp
)
include(OpkitOperators)

set(opkit_library_flags -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-semantic-interposition
                        -fvisibility=hidden -fvisibility-inlines-hidden)

add_library(opkit_headers INTERFACE)
target_include_directories(opkit_headers INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                                                   $<INSTALL_INTERFACE:include>)

function(opkit_object_library name)
  add_library(${name} OBJECT ${ARGN})
  target_link_libraries(${name} PRIVATE opkit_headers)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  target_compile_options(${name} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:${opkit_library_flags}>
                                         $<$<CONFIG:Release>:-O3>)
  if(OPKIT_COVERAGE)
    target_compile_options(${name} PRIVATE --coverage -fprofile-update=atomic -O0 -g1)
  endif()
endfunction()

opkit_object_library(opkit_core ${opkit_sources})

include(OpkitKernels)

set(opkit_object_files $<TARGET_OBJECTS:opkit_core> ${opkit_kernel_objects})

# The same objects for tests and benchmarks, hidden functions included.
add_library(opkit_objects STATIC ${opkit_object_files})
target_link_libraries(opkit_objects PUBLIC opkit_headers m ${CMAKE_DL_LIBS})
target_include_directories(opkit_objects PUBLIC ${PROJECT_SOURCE_DIR})

add_library(opkit SHARED ${opkit_object_files})
add_library(opkit::opkit ALIAS opkit)
target_link_libraries(opkit PUBLIC opkit_headers PRIVATE m)
set_target_properties(opkit PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR})
if(NOT OPKIT_SANITIZE AND NOT OPKIT_COVERAGE)
  # libc and libm are all it needs: linked as C, so that neither libstdc++ nor libgcc_s comes along.
  set_target_properties(opkit PROPERTIES LINKER_LANGUAGE C)
  target_link_options(opkit PRIVATE -static-libgcc -Wl,--as-needed -Wl,--no-undefined -Wl,-Bsymbolic-functions
                                    -Wl,-z,relro -Wl,-z,now)
endif()
