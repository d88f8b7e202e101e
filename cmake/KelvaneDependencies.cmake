# Every external dependency is found here, once, and exposed as an imported target.
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(Protobuf REQUIRED)

pkg_check_modules(BOTAN REQUIRED IMPORTED_TARGET botan-2)
add_library(kelvane_ext::botan ALIAS PkgConfig::BOTAN)

if(KELVANE_PLATFORM STREQUAL "host")
    find_package(sdbus-c++ REQUIRED)
    find_package(sdbus-c++-tools REQUIRED)
    pkg_check_modules(MOSQUITTO REQUIRED IMPORTED_TARGET libmosquitto)
    add_library(kelvane_ext::mosquitto ALIAS PkgConfig::MOSQUITTO)
    find_package(OpenSSL 3 REQUIRED)
    pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
    add_library(kelvane_ext::systemd ALIAS PkgConfig::SYSTEMD)
    # DLT is compiled in when found; without it the console sink still works.
    pkg_check_modules(DLT IMPORTED_TARGET automotive-dlt)
    find_package(Boost 1.74 QUIET)
    if(KELVANE_BUILD_SIMULATORS)
        # Header-only; the simulators' command lines and JSON output.
        find_package(CLI11 2 REQUIRED)
        find_package(nlohmann_json 3 REQUIRED)
    endif()
endif()

if(KELVANE_BUILD_TESTS)
    find_package(GTest REQUIRED)
endif()
if(KELVANE_BUILD_BENCH)
    find_package(benchmark REQUIRED)
endif()
