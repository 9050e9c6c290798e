# Installs into a scratch prefix, moves it away, and builds and runs consumers against it: by find_package and by
# pkg-config. Arguments: BUILD_DIR, SOURCE_DIR, GENERATOR, C_COMPILER, CXX_COMPILER, WITH_TOOL.

include(${CMAKE_CURRENT_LIST_DIR}/packaging.cmake)
set(scratch ${BUILD_DIR}/tests/packaging/install)
file(REMOVE_RECURSE ${scratch})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${scratch}/first)
file(RENAME ${scratch}/first ${scratch}/prefix)
set(prefix ${scratch}/prefix)

file(GLOB lib_dir ${prefix}/lib*/pkgconfig ${prefix}/lib/*/pkgconfig)
get_filename_component(lib_dir "${lib_dir}" DIRECTORY)
foreach(file IN ITEMS include/opkit/opkit.h include/opkit/attributes/matrix.h include/modelkit/request.h)
  expect_file(${prefix}/${file})
endforeach()
foreach(file IN ITEMS libopkit.so libopkit.so.3 libopkit_modelkit.a cmake/opkit/opkit-config.cmake)
  expect_file(${lib_dir}/${file})
endforeach()
file(GLOB_RECURSE headers ${prefix}/include/*.h)
foreach(header IN LISTS headers)
  file(READ ${header} text)
  expect_no("${text}" "#include <(nlohmann|xtensor|fmt|CLI)" "${header}")
endforeach()

# The program finds the library beside it.
if(WITH_TOOL)
  expect_file(${prefix}/share/man/man1/opkit.1)
  run(${prefix}/bin/opkit --version)
  expect("${output}" "^opkit 3\\.0\\.0 ")
  set(ENV{LD_TRACE_LOADED_OBJECTS} 1)
  run(${prefix}/bin/opkit)
  unset(ENV{LD_TRACE_LOADED_OBJECTS})
  expect("${output}" "libopkit\\.so\\.3 => ${prefix}/bin/\\.\\./")
endif()

set(expected_c "C 0x30000 -1\\.5 2 -0\\.25\n")
set(expected_cpp "C\\+\\+ 0x30000 1 0xffffffff\n")
set(expected_model "modelkit 11 22 33 41 52 63\n")

# find_package
set(configure ${CMAKE_COMMAND} -G ${GENERATOR} -DCMAKE_C_COMPILER=${C_COMPILER} -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
              -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
run(${configure} -S ${SOURCE_DIR}/tests/packaging/consumer -B ${scratch}/consumer)
run(${CMAKE_COMMAND} --build ${scratch}/consumer)
run(${scratch}/consumer/consumer_c)
expect("${output}" "^${expected_c}$")
run(${scratch}/consumer/consumer_cpp)
expect("${output}" "${expected_cpp}$")
run(${scratch}/consumer/model_consumer)
expect("${output}" "^${expected_model}$")

# A next major version would be another library.
file(WRITE ${scratch}/next/CMakeLists.txt
     "cmake_minimum_required(VERSION 3.25)\nproject(next LANGUAGES NONE)\nfind_package(opkit 4 REQUIRED)\n")
execute_process(COMMAND ${configure} -S ${scratch}/next -B ${scratch}/next/build RESULT_VARIABLE result
                OUTPUT_QUIET ERROR_VARIABLE errors)
expect("${result} ${errors}" "^1 .*opkit-config\\.cmake, version: 3\\.0\\.0")

# pkg-config
find_program(pkg_config NAMES pkg-config pkgconf REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${lib_dir}/pkgconfig)
run(${pkg_config} --modversion opkit)
expect("${output}" "^3\\.0\\.0\n$")
run(${pkg_config} --cflags --libs opkit)
separate_arguments(flags UNIX_COMMAND "${output} -Wl,-rpath,${lib_dir}")
set(consumer ${SOURCE_DIR}/tests/packaging/consumer)
run(${C_COMPILER} -std=c11 -Wall -Wextra -pedantic -Werror ${consumer}/consumer.c -o ${scratch}/by_pkg_config ${flags})
run(${scratch}/by_pkg_config)
expect("${output}" "^${expected_c}$")
run(${CXX_COMPILER} -std=c++20 -Wall -Wextra -Werror ${consumer}/consumer.cpp -o ${scratch}/by_pkg_config_cpp ${flags})
run(${scratch}/by_pkg_config_cpp)
expect("${output}" "${expected_cpp}$")
