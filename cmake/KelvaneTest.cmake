# kelvane_add_test(NAME <name> SOURCES ... [LIBS ...] [LABELS ...]
#                  [INCLUDE_DIRS ...] [DEFINITIONS ...] [DEPENDS <targets>...]
#                  [TIMEOUT <seconds>] [RESOURCE_LOCK ...])
#
# Builds <name>_test from SOURCES, links GoogleTest/GoogleMock and the project's
# test main (captured log printed for failing tests), and registers every test
# case with CTest. LABELS: unit, integration, e2e, slow, fuzz. INCLUDE_DIRS
# (relative to the calling folder) and DEFINITIONS are private to the test;
# DEPENDS names programs the test runs, built before it.
set(KELVANE_TEST_LABELS unit integration e2e slow fuzz)

function(kelvane_add_test)
    if(NOT KELVANE_BUILD_TESTS)
        return()
    endif()
    cmake_parse_arguments(ARG "" "NAME;TIMEOUT" "SOURCES;LIBS;LABELS;RESOURCE_LOCK;INCLUDE_DIRS;DEFINITIONS;DEPENDS" ${ARGN})
    if(NOT ARG_NAME OR NOT ARG_SOURCES)
        message(FATAL_ERROR "kelvane_add_test: NAME and SOURCES are required")
    endif()
    if(NOT ARG_LABELS)
        set(ARG_LABELS unit)
    endif()
    foreach(label IN LISTS ARG_LABELS)
        if(NOT label IN_LIST KELVANE_TEST_LABELS)
            message(FATAL_ERROR "kelvane_add_test(${ARG_NAME}): unknown label '${label}'")
        endif()
    endforeach()
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 120)
    endif()

    set(target ${ARG_NAME}_test)
    add_executable(${target} ${ARG_SOURCES})
    target_link_libraries(${target} PRIVATE ${ARG_LIBS} kelvane::test_support GTest::gmock)
    kelvane_target_warnings(${target})
    if(ARG_INCLUDE_DIRS)
        target_include_directories(${target} PRIVATE ${ARG_INCLUDE_DIRS})
    endif()
    if(ARG_DEFINITIONS)
        target_compile_definitions(${target} PRIVATE ${ARG_DEFINITIONS})
    endif()
    if(ARG_DEPENDS)
        add_dependencies(${target} ${ARG_DEPENDS})
    endif()

    list(GET ARG_LABELS 0 first_label)
    set(properties LABELS ${first_label} TIMEOUT ${ARG_TIMEOUT})
    if(ARG_RESOURCE_LOCK)
        list(APPEND properties RESOURCE_LOCK "${ARG_RESOURCE_LOCK}")
    endif()
    gtest_discover_tests(${target}
                         DISCOVERY_MODE PRE_TEST
                         DISCOVERY_TIMEOUT 30
                         PROPERTIES ${properties})

    # gtest_discover_tests flattens list values, so further labels are set by a
    # script of our own that CTest runs once the discovered tests exist.
    list(LENGTH ARG_LABELS label_count)
    if(label_count GREATER 1)
        set(labels_script ${CMAKE_CURRENT_BINARY_DIR}/${target}_labels.cmake)
        file(WRITE ${labels_script}
             "foreach(test IN LISTS ${target}_TESTS)\n"
             "    set_tests_properties(\"\${test}\" PROPERTIES LABELS \"${ARG_LABELS}\")\n"
             "endforeach()\n")
        set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${labels_script})
    endif()
endfunction()

include(GoogleTest)
