# Makes the Debian packages and looks into them. Arguments: BUILD_DIR, WITH_TOOL.

include(${CMAKE_CURRENT_LIST_DIR}/packaging.cmake)
set(scratch ${BUILD_DIR}/tests/packaging/deb)
file(REMOVE_RECURSE ${scratch})
get_filename_component(cmake_dir ${CMAKE_COMMAND} DIRECTORY)
run(${cmake_dir}/cpack -G DEB -B ${scratch} --config ${BUILD_DIR}/CPackConfig.cmake)

function(field package name result)
  file(GLOB file ${scratch}/${package}_3.0.0_*.deb)
  run(dpkg-deb -f ${file} ${name})
  string(STRIP "${output}" output)
  set(${result} "${output}" PARENT_SCOPE)
endfunction()

# The files of a package, one per line; the package is unpacked under ${scratch}/root.
function(files package result)
  file(GLOB file ${scratch}/${package}_3.0.0_*.deb)
  run(dpkg-deb -x ${file} ${scratch}/root-${package})
  run(dpkg-deb -x ${file} ${scratch}/root)
  file(GLOB_RECURSE found LIST_DIRECTORIES false RELATIVE ${scratch}/root-${package} ${scratch}/root-${package}/*)
  list(JOIN found "\n" found)
  set(${result} "${found}" PARENT_SCOPE)
endfunction()

# The library needs libc6 (libm is part of it) and nothing else, and is all that its package holds.
field(libopkit3 Depends depends)
expect("${depends}" "^libc6( \\(>= [0-9.]+\\))?$")
files(libopkit3 found)
expect("${found}" "^usr/lib/[^\n]*libopkit\\.so\\.3\nusr/lib/[^\n]*libopkit\\.so\\.3\\.0\\.0$")

field(libopkit-dev Depends depends)
expect("${depends}" "^libopkit3 \\(= 3\\.0\\.0\\)$")
files(libopkit-dev found)
expect("${found}" "usr/include/opkit/opkit\\.h\n")
expect("${found}" "libopkit\\.so\n")
expect("${found}" "cmake/opkit/opkit-config\\.cmake\n")
expect("${found}" "pkgconfig/opkit\\.pc$")
expect_no("${found}" "libopkit\\.so\\.3|usr/bin" libopkit-dev)

if(WITH_TOOL)
  field(opkit Depends depends)
  expect("${depends}" "libopkit3 \\(= 3\\.0\\.0\\)")
  expect("${depends}" "libstdc\\+\\+6")
  files(opkit found)
  expect("${found}" "^usr/bin/opkit\nusr/share/man/man1/opkit\\.1$")
  run(${scratch}/root/usr/bin/opkit --version)
  expect("${output}" "^opkit 3\\.0\\.0 ")
endif()
