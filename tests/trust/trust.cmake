# Programs that put the operator tests' random layers to other uses: they link the objects of those tests.
get_property(opkit_operator_tests GLOBAL PROPERTY opkit_operator_tests)
set(opkit_operator_cases "")
foreach(test IN LISTS opkit_operator_tests)
  list(APPEND opkit_operator_cases $<TARGET_OBJECTS:${test}>)
endforeach()

opkit_test(trust/threads_test LABEL threads LIBS opkit_test_alloc_fault)
opkit_test(trust/allocation_test LIBS opkit_test_alloc_fault)
foreach(name IN ITEMS threads_test allocation_test)
  target_sources(${name} PRIVATE ${opkit_operator_cases})
endforeach()

opkit_test(trust/exhaustive_test)

# See script/hashes.
add_executable(opkit_hashes EXCLUDE_FROM_ALL differential/hashes.cpp ${opkit_operator_cases})
target_link_libraries(opkit_hashes PRIVATE opkit_test_flags opkit_test_alloc_fault)
set_target_properties(opkit_hashes PROPERTIES POSITION_INDEPENDENT_CODE OFF)

# All tests of the library in one program; see script/mutate.
get_property(opkit_library_tests GLOBAL PROPERTY opkit_library_tests)
set(opkit_library_test_objects "")
foreach(test IN LISTS opkit_library_tests)
  list(APPEND opkit_library_test_objects $<TARGET_OBJECTS:${test}>)
endforeach()
add_executable(opkit_library_tests EXCLUDE_FROM_ALL ${opkit_library_test_objects})
target_link_libraries(opkit_library_tests PRIVATE opkit_test_flags opkit_test_alloc_fault)
set_target_properties(opkit_library_tests PROPERTIES POSITION_INDEPENDENT_CODE OFF LINKER_LANGUAGE CXX)

# See script/fuzz.
if(nlohmann_json_FOUND)
  add_executable(opkit_fuzz_seeds EXCLUDE_FROM_ALL ${PROJECT_SOURCE_DIR}/fuzz/seeds.cpp ${opkit_operator_cases})
  target_link_libraries(opkit_fuzz_seeds PRIVATE opkit_test_flags opkit_test_alloc_fault nlohmann_json::nlohmann_json)
  set_target_properties(opkit_fuzz_seeds PROPERTIES POSITION_INDEPENDENT_CODE OFF)
endif()

set(opkit_smoke_runs_request 200000)
set(opkit_smoke_runs_check 20000)
set(opkit_smoke_runs_reader 40000)
# The fuzz targets for some seconds, without a fuzzer, where the sanitizers look on.
if(TARGET opkit_fuzz_seeds AND OPKIT_SANITIZE MATCHES "address")
  set_target_properties(opkit_fuzz_seeds PROPERTIES EXCLUDE_FROM_ALL OFF)
  foreach(target IN ITEMS request check reader)
    set(seeds ${CMAKE_CURRENT_BINARY_DIR}/fuzz_seeds/${target})
    file(MAKE_DIRECTORY ${seeds})
    add_executable(${target}_fuzz_smoke ${PROJECT_SOURCE_DIR}/fuzz/smoke.cpp
                                        ${PROJECT_SOURCE_DIR}/fuzz/${target}_fuzz.cpp)
    target_link_libraries(${target}_fuzz_smoke PRIVATE opkit_modelkit opkit_objects)
    target_include_directories(${target}_fuzz_smoke PRIVATE ${PROJECT_SOURCE_DIR})
    add_test(NAME trust/${target}_fuzz_seeds
             COMMAND opkit_fuzz_seeds ${target} ${seeds} ${PROJECT_SOURCE_DIR}/examples/digits/data/digits)
    add_test(NAME trust/${target}_fuzz_smoke COMMAND ${target}_fuzz_smoke ${seeds} ${opkit_smoke_runs_${target}})
    set_tests_properties(trust/${target}_fuzz_seeds PROPERTIES FIXTURES_SETUP ${target}_fuzz_seeds)
    set_tests_properties(trust/${target}_fuzz_smoke PROPERTIES FIXTURES_REQUIRED ${target}_fuzz_seeds TIMEOUT 300)
  endforeach()
  target_sources(reader_fuzz_smoke PRIVATE ${PROJECT_SOURCE_DIR}/tools/npy.cpp)
endif()

if(NOT OPKIT_SANITIZE AND NOT OPKIT_COVERAGE)
  add_executable(reload_test trust/reload_test.c)
  target_include_directories(reload_test PRIVATE ${PROJECT_SOURCE_DIR}/include)
  target_compile_definitions(reload_test PRIVATE _GNU_SOURCE)
  target_link_libraries(reload_test PRIVATE ${CMAKE_DL_LIBS})
  add_dependencies(reload_test opkit)
  add_test(NAME trust/reload_test COMMAND reload_test $<TARGET_FILE:opkit>)
endif()

# A short soak; script/test-long runs the long one.
if(OPKIT_BUILD_EXAMPLES)
  add_executable(opkit_soak trust/soak.cpp)
  target_link_libraries(opkit_soak PRIVATE opkit_modelkit opkit_objects Threads::Threads xtensor)
  target_include_directories(opkit_soak PRIVATE ${PROJECT_SOURCE_DIR})
  add_test(NAME trust/soak COMMAND opkit_soak ${PROJECT_SOURCE_DIR}/examples/digits/data 4000 4)
  # Freed blocks that the address sanitizer keeps back would count as growth.
  set_tests_properties(trust/soak PROPERTIES ENVIRONMENT
                       ASAN_OPTIONS=quarantine_size_mb=0:thread_local_quarantine_size_kb=0)
endif()
