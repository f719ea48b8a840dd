# Instrumented builds. The options hold for the whole build; tests/ takes them
# back where it can.

set(TULO_SANITIZE "" CACHE STRING "Sanitizers: empty, address,undefined or thread")
option(TULO_COVERAGE "Count which lines and branches the tests reach" OFF)
option(TULO_FUZZ "The fuzz targets search for new inputs; needs clang" OFF)

# Environment that the tests need because of the instrumentation.
set(TULO_TEST_ENVIRONMENT "")
# Seconds. For what hangs, not for what is slow: a busy machine does not fail.
set(TULO_TEST_TIMEOUT 900)

set(tulo_instrumentation "")

if(TULO_SANITIZE)
    set(known "address" "undefined" "address,undefined" "thread")
    if(NOT TULO_SANITIZE IN_LIST known)
        message(FATAL_ERROR "TULO_SANITIZE is '${TULO_SANITIZE}'; known are: ${known}")
    endif()
    list(APPEND tulo_instrumentation
        -fsanitize=${TULO_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -g1)
    add_link_options(-fsanitize=${TULO_SANITIZE})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        list(APPEND tulo_instrumentation
            -fsanitize-ignorelist=${CMAKE_CURRENT_LIST_DIR}/sanitizers.ignore)
    endif()
    # Short stacks and a small quarantine: a third of the time went there.
    list(APPEND TULO_TEST_ENVIRONMENT
        ASAN_OPTIONS=malloc_context_size=4:quarantine_size_mb=8:max_malloc_fill_size=0
        UBSAN_OPTIONS=print_stacktrace=1
        LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/leaks.supp:print_suppressions=0)
endif()

if(TULO_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "TULO_FUZZ needs clang, not ${CMAKE_CXX_COMPILER_ID}.")
    endif()
    # The fuzzer sees from these counters which code an input reaches.
    list(APPEND tulo_instrumentation -fsanitize=fuzzer-no-link)
endif()

if(TULO_COVERAGE)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "TULO_COVERAGE needs clang, not ${CMAKE_CXX_COMPILER_ID}.")
    endif()
    # Threads may lose each other's counts; all that is asked is whether there are any.
    list(APPEND tulo_instrumentation -fprofile-instr-generate -fcoverage-mapping)
    add_link_options(-fprofile-instr-generate)
    list(APPEND TULO_TEST_ENVIRONMENT LLVM_PROFILE_FILE=/dev/null)
endif()

add_compile_options(${tulo_instrumentation})
