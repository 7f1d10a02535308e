# Everything comes from Debian's packages; packages.txt lists them.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(Snappy REQUIRED)
find_package(fmt REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(CLI11 REQUIRED)
pkg_check_modules(libuv REQUIRED IMPORTED_TARGET libuv)
pkg_check_modules(libcurl REQUIRED IMPORTED_TARGET libcurl>=7.87)

# Header-only; without this definition its headers ask for Boost.
add_library(msgpack_headers INTERFACE)
target_compile_definitions(msgpack_headers INTERFACE MSGPACK_NO_BOOST)

# Header-only: vector instructions, written once for all processors.
find_path(SIMDE_INCLUDE_DIR simde/x86/sse2.h REQUIRED)

# Headers of the collectd daemon for its write plugin.
find_path(COLLECTD_INCLUDE_DIR core/daemon/plugin.h PATH_SUFFIXES collectd REQUIRED)
