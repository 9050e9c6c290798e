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

# See script/fuzz.
if(nlohmann_json_FOUND)
  add_executable(opkit_fuzz_seeds EXCLUDE_FROM_ALL ${PROJECT_SOURCE_DIR}/fuzz/seeds.cpp ${opkit_operator_cases})
  target_link_libraries(opkit_fuzz_seeds PRIVATE opkit_test_flags opkit_test_alloc_fault nlohmann_json::nlohmann_json)
  set_target_properties(opkit_fuzz_seeds PROPERTIES POSITION_INDEPENDENT_CODE OFF)
endif()
