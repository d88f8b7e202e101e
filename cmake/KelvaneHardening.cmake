# Hardening for every target of every build, whatever the build type, the
# architecture and the compiler (GCC, or clang for the fuzzers): the vehicle
# gets what the tests ran. tools/check-hardening.sh shows the result in the
# built binaries.

# Position-independent executables, so that ASLR moves the program too.
include(CheckPIESupported)
check_pie_supported(OUTPUT_VARIABLE pie_output LANGUAGES C CXX)
if(NOT CMAKE_CXX_LINK_PIE_SUPPORTED)
    message(FATAL_ERROR "The linker cannot make position-independent executables:\n${pie_output}")
endif()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

add_compile_options(-fstack-protector-strong -fstack-clash-protection)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
    add_compile_options(-fcf-protection)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64|ARM64)$")
    add_compile_options(-mbranch-protection=standard)
endif()
# Read-only relocations, resolved at start.
add_link_options(LINKER:-z,relro,-z,now)

# glibc's checked variants of the string and I/O calls need the optimiser
# (without it glibc warns, and warnings are errors), so not in Debug builds.
# The sanitizers check those calls themselves, and better: the checked
# variants would bypass their interceptors.
if(KELVANE_SANITIZER STREQUAL "" AND NOT KELVANE_FUZZING)
    set(optimised "$<OR:$<CONFIG:Release>,$<CONFIG:RelWithDebInfo>,$<CONFIG:MinSizeRel>>")
    # -U first: some compilers define it already, and a second definition warns.
    add_compile_options("$<${optimised}:-U_FORTIFY_SOURCE>" "$<${optimised}:-D_FORTIFY_SOURCE=2>")
endif()
