# Options of the build, and the compile flags that every target shares.

set(OPKIT_SANITIZE "" CACHE STRING "Sanitizers to build with, such as address,undefined or thread")
option(OPKIT_COVERAGE "Instrument for gcov" OFF)
option(OPKIT_BUILD_FUZZ "Build the fuzz targets, with clang" OFF)
option(OPKIT_WERROR "Treat warnings as errors" OFF)

# A part is on when opkit is the top-level project and its dependencies are found.
function(opkit_part name description)
  cmake_parse_arguments(PART "" "" "PACKAGES;DEBIAN" ${ARGN})
  set(found ON)
  foreach(package IN LISTS PART_PACKAGES)
    find_package(${package} QUIET)
    if(NOT ${package}_FOUND)
      set(found OFF)
    endif()
  endforeach()
  if(PROJECT_IS_TOP_LEVEL)
    set(default ${found})
  else()
    set(default OFF)
  endif()
  option(OPKIT_BUILD_${name} "Build ${description}" ${default})
  if(PROJECT_IS_TOP_LEVEL AND NOT found AND NOT OPKIT_BUILD_${name})
    list(JOIN PART_DEBIAN " " debian)
    message(STATUS "opkit: ${description} skipped; Debian packages that bring them: ${debian}")
  endif()
endfunction()

find_package(Threads QUIET)
find_package(nlohmann_json QUIET)

opkit_part(TESTS "tests" PACKAGES GTest Threads nlohmann_json fmt xtensor
           DEBIAN libgtest-dev libgmock-dev nlohmann-json3-dev libfmt-dev libxtensor-dev)
opkit_part(TOOLS "the opkit program" PACKAGES CLI11 nlohmann_json fmt xtensor Threads
           DEBIAN libcli11-dev nlohmann-json3-dev libfmt-dev libxtensor-dev)
opkit_part(EXAMPLES "examples" PACKAGES CLI11 nlohmann_json fmt xtensor
           DEBIAN libcli11-dev nlohmann-json3-dev libfmt-dev libxtensor-dev)
opkit_part(BENCH "benchmarks" PACKAGES benchmark nlohmann_json DEBIAN libbenchmark-dev nlohmann-json3-dev)

# Exactness: a product rounds before a sum takes it, and what may wrap or alias is written so that it may.
add_compile_options(-ffp-contract=off -fno-math-errno)
add_compile_options(-Wall -Wextra -Wshadow)
# GCC 12 reports overlaps inside std::string where there are none.
add_compile_options($<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:GNU>>:-Wno-restrict>)
if(OPKIT_WERROR)
  add_compile_options(-Werror)
endif()
if(OPKIT_SANITIZE)
  add_compile_options(-fsanitize=${OPKIT_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -g1)
  add_link_options(-fsanitize=${OPKIT_SANITIZE})
endif()
if(OPKIT_COVERAGE)
  add_link_options(--coverage)  # the library's objects are instrumented, see OpkitLibrary
endif()
