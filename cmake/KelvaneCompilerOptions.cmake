# Warnings apply to our own targets only (see kelvane_add_library), so that
# generated protobuf and D-Bus glue does not fail the build on its style.
set(KELVANE_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast
                     -Woverloaded-virtual -Wnull-dereference -Wformat=2)
# Cached so that a re-configure started by the build tool keeps the choice.
set(werror_default OFF)
if(DEFINED ENV{CI} AND NOT "$ENV{CI}" STREQUAL "" AND NOT "$ENV{CI}" STREQUAL "false")
    set(werror_default ON)
endif()
option(KELVANE_WERROR "Treat warnings as errors (on by default when CI is set)" ${werror_default})
if(KELVANE_WERROR)
    list(APPEND KELVANE_WARNINGS -Werror)
endif()

if(KELVANE_SANITIZER STREQUAL "address")
    add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
    add_link_options(-fsanitize=address,undefined)
elseif(KELVANE_SANITIZER STREQUAL "thread")
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
    add_link_options(-fsanitize=thread)
elseif(NOT KELVANE_SANITIZER STREQUAL "")
    message(FATAL_ERROR "KELVANE_SANITIZER must be empty, 'address' or 'thread', not '${KELVANE_SANITIZER}'")
endif()
# GCC takes the sanitizers' instrumentation for reads of uninitialised memory
# (inside <regex>, for one); the plain build keeps the warning.
if(NOT KELVANE_SANITIZER STREQUAL "" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    list(APPEND KELVANE_WARNINGS -Wno-maybe-uninitialized)
endif()

# Applies the project's warning set to one of its own targets.
function(kelvane_target_warnings target)
    target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:${KELVANE_WARNINGS}>)
endfunction()
