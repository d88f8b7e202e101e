# libFuzzer harnesses (clang only, KELVANE_BUILD_FUZZERS=ON).
#
# A fuzz build is a build directory of its own, configured with CC=clang
# CXX=clang++ -DKELVANE_BUILD_FUZZERS=ON (tools/fuzz.sh does that). Every target
# of that build gets coverage, address and undefined-behaviour instrumentation,
# so the libraries a harness links are fuzzed too, not only the harness.
#
# kelvane_add_fuzzer(NAME <name> SOURCES ... [LIBS ...] [DICTIONARY <file>])
#
# Builds <name>_fuzzer and registers the CTest test fuzz_<name> (label fuzz):
# it copies the seed corpus corpus/<name>/ beside the source into a scratch
# directory of the build tree and runs the fuzzer over that copy for
# KELVANE_FUZZ_SECONDS. New inputs and crash artifacts stay in the scratch
# directory; the repository's corpus is never written.
#
# This file is also the runner of those tests (cmake -P, see the end).

if(CMAKE_SCRIPT_MODE_FILE)
    # Runner: -DFUZZER= -DCORPUS= -DSCRATCH= -DSECONDS= [-DDICTIONARY=]
    foreach(variable IN ITEMS FUZZER CORPUS SCRATCH SECONDS)
        if(NOT DEFINED ${variable})
            message(FATAL_ERROR "fuzz runner: -D${variable}= is required")
        endif()
    endforeach()
    get_filename_component(name "${FUZZER}" NAME)
    file(REMOVE_RECURSE "${SCRATCH}")
    file(MAKE_DIRECTORY "${SCRATCH}/corpus" "${SCRATCH}/artifacts")
    file(GLOB seeds LIST_DIRECTORIES false "${CORPUS}/*")
    if(NOT seeds)
        message(FATAL_ERROR "${name}: no seed inputs in ${CORPUS}")
    endif()
    file(COPY ${seeds} DESTINATION "${SCRATCH}/corpus")

    set(arguments -max_total_time=${SECONDS} -timeout=5 -rss_limit_mb=1024 -malloc_limit_mb=1024
                  -print_final_stats=1 -artifact_prefix=${SCRATCH}/artifacts/)
    if(DICTIONARY)
        list(APPEND arguments -dict=${DICTIONARY})
    endif()
    set(log "${SCRATCH}/fuzz.log")
    execute_process(COMMAND "${FUZZER}" ${arguments} "${SCRATCH}/corpus"
                    WORKING_DIRECTORY "${SCRATCH}"
                    RESULT_VARIABLE result
                    OUTPUT_FILE "${log}"
                    ERROR_FILE "${log}")
    file(READ "${log}" output)
    if(NOT result EQUAL 0)
        file(GLOB artifacts "${SCRATCH}/artifacts/*")
        string(REPLACE ";" " " artifacts "${artifacts}")
        message("${output}")
        message(FATAL_ERROR "${name} found a problem (exit ${result}); "
                            "reproduce with: ${FUZZER} ${artifacts}")
    endif()
    string(REGEX MATCH "#[0-9]+[\t ]+DONE[^\n]*" done "${output}")
    string(REGEX MATCHALL "stat::[^\n]*" stats "${output}")
    string(REPLACE ";" "\n" stats "${stats}")
    message("${name}: ${done}\n${stats}")
    return()
endif()

option(KELVANE_BUILD_FUZZERS "Build the libFuzzer harnesses (needs clang)" OFF)
set(KELVANE_FUZZ_SECONDS 15 CACHE STRING "How long each fuzz test runs, in seconds")

set(KELVANE_FUZZING OFF)
if(KELVANE_BUILD_FUZZERS)
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        message(WARNING "KELVANE_BUILD_FUZZERS needs clang (configure with CC=clang "
                        "CXX=clang++); no fuzzers are built")
    elseif(NOT KELVANE_SANITIZER STREQUAL "")
        message(FATAL_ERROR "KELVANE_BUILD_FUZZERS brings its own sanitizers; "
                            "leave KELVANE_SANITIZER empty")
    else()
        set(KELVANE_FUZZING ON)
        add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                            -fno-sanitize-recover=undefined)
        add_link_options(-fsanitize=address,undefined)
        add_custom_target(kelvane_fuzzers)
    endif()
endif()

set(KELVANE_FUZZ_RUNNER ${CMAKE_CURRENT_LIST_FILE})

function(kelvane_add_fuzzer)
    if(NOT KELVANE_FUZZING)
        return()
    endif()
    cmake_parse_arguments(ARG "" "NAME;DICTIONARY" "SOURCES;LIBS" ${ARGN})
    if(NOT ARG_NAME OR NOT ARG_SOURCES)
        message(FATAL_ERROR "kelvane_add_fuzzer: NAME and SOURCES are required")
    endif()
    set(corpus ${CMAKE_CURRENT_SOURCE_DIR}/corpus/${ARG_NAME})
    if(NOT IS_DIRECTORY ${corpus})
        message(FATAL_ERROR "kelvane_add_fuzzer(${ARG_NAME}): no seed corpus in ${corpus}")
    endif()

    set(target ${ARG_NAME}_fuzzer)
    add_executable(${target} ${ARG_SOURCES})
    target_link_libraries(${target} PRIVATE ${ARG_LIBS})
    target_link_options(${target} PRIVATE -fsanitize=fuzzer)
    kelvane_target_warnings(${target})
    add_dependencies(kelvane_fuzzers ${target})

    set(dictionary)
    if(ARG_DICTIONARY)
        set(dictionary -DDICTIONARY=${CMAKE_CURRENT_SOURCE_DIR}/${ARG_DICTIONARY})
    endif()
    add_test(NAME fuzz_${ARG_NAME}
             COMMAND ${CMAKE_COMMAND} -DFUZZER=$<TARGET_FILE:${target}> -DCORPUS=${corpus}
                     -DSCRATCH=${CMAKE_CURRENT_BINARY_DIR}/${ARG_NAME}-run
                     -DSECONDS=${KELVANE_FUZZ_SECONDS} ${dictionary} -P ${KELVANE_FUZZ_RUNNER})
    math(EXPR timeout "${KELVANE_FUZZ_SECONDS} + 120")
    # A smaller quarantine than the default 256 MiB keeps runs of several
    # minutes below the RSS limit.
    set_tests_properties(fuzz_${ARG_NAME} PROPERTIES
        LABELS fuzz
        TIMEOUT ${timeout}
        ENVIRONMENT "UBSAN_OPTIONS=print_stacktrace=1;ASAN_OPTIONS=detect_leaks=1:quarantine_size_mb=64")
endfunction()
