# Every file of ops/ belongs to the library.
file(GLOB opkit_operators CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/ops/*/*.cpp)
list(APPEND opkit_sources ${opkit_operators})
