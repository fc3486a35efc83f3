# Every third-party library comes from the system (scripts/bootstrap.sh installs them on Debian).

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(fmt REQUIRED)
find_package(nlohmann_json 3.11 REQUIRED)
find_package(tl-expected REQUIRED)
find_package(date REQUIRED)
find_package(CLI11 REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(Protobuf REQUIRED)

pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET libplist-2.0)
if(NOT APPLE)
  pkg_check_modules(BLKID REQUIRED IMPORTED_TARGET blkid)
  pkg_check_modules(MOUNT REQUIRED IMPORTED_TARGET mount)
  # sd-bus, for asking polkit on the system bus.
  pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
endif()

# Standalone Asio is header-only.
find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)
add_library(ql_asio INTERFACE)
target_include_directories(ql_asio SYSTEM INTERFACE "${ASIO_INCLUDE_DIR}")
# Asio decides between aligned_alloc and operator new from whether a standard header came
# before it, so two translation units could disagree on how a recycled coroutine frame is
# freed. Pin the choice for every target.
target_compile_definitions(ql_asio INTERFACE ASIO_STANDALONE ASIO_DISABLE_STD_ALIGNED_ALLOC)
target_link_libraries(ql_asio INTERFACE Threads::Threads)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  # Asio 1.22 looks only for <experimental/coroutine> under clang; libstdc++ offers <coroutine>.
  target_compile_definitions(ql_asio INTERFACE ASIO_HAS_CO_AWAIT=1)
endif()

if(QL_BUILD_TESTS)
  find_package(GTest REQUIRED)
endif()
if(QL_BUILD_BENCH)
  find_package(benchmark REQUIRED)
endif()
