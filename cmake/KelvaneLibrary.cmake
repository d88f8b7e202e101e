# kelvane_add_library(NAME <name> [SOURCES ...] [PUBLIC_LIBS ...] [PRIVATE_LIBS ...])
#
# One library per component folder: target <name>, alias kelvane::<name>,
# public headers under <folder>/include/<name>/. Without SOURCES the library is
# header-only (INTERFACE).
function(kelvane_add_library)
    cmake_parse_arguments(ARG "" "NAME" "SOURCES;PUBLIC_LIBS;PRIVATE_LIBS" ${ARGN})
    if(NOT ARG_NAME)
        message(FATAL_ERROR "kelvane_add_library: NAME is required")
    endif()
    if(ARG_SOURCES)
        add_library(${ARG_NAME} ${ARG_SOURCES})
        target_include_directories(${ARG_NAME} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/include)
        target_link_libraries(${ARG_NAME} PUBLIC ${ARG_PUBLIC_LIBS} PRIVATE ${ARG_PRIVATE_LIBS})
        kelvane_target_warnings(${ARG_NAME})
    else()
        add_library(${ARG_NAME} INTERFACE)
        target_include_directories(${ARG_NAME} INTERFACE ${CMAKE_CURRENT_SOURCE_DIR}/include)
        target_link_libraries(${ARG_NAME} INTERFACE ${ARG_PUBLIC_LIBS})
    endif()
    add_library(kelvane::${ARG_NAME} ALIAS ${ARG_NAME})
endfunction()
