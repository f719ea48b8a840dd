# Instrumented builds. A sanitizer or the coverage counters must be in every
# object of a process, so these options hold for the whole build.

set(TULO_SANITIZE "" CACHE STRING "Sanitizers: empty, address,undefined or thread")
option(TULO_COVERAGE "Count which lines and branches the tests reach" OFF)
option(TULO_FUZZ "The fuzz targets search for new inputs; needs clang" OFF)

# Environment that the tests need because of the instrumentation.
set(TULO_TEST_ENVIRONMENT "")
# Seconds. For what hangs, not for what is slow: a busy machine is no failure.
set(TULO_TEST_TIMEOUT 300)

if(TULO_SANITIZE)
    set(known "address" "undefined" "address,undefined" "thread")
    if(NOT TULO_SANITIZE IN_LIST known)
        message(FATAL_ERROR "TULO_SANITIZE is '${TULO_SANITIZE}'; known are: ${known}")
    endif()
    add_compile_options(-fsanitize=${TULO_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -g)
    add_link_options(-fsanitize=${TULO_SANITIZE})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        add_compile_options(-fsanitize-ignorelist=${CMAKE_CURRENT_LIST_DIR}/sanitizers.ignore)
    endif()
    set(TULO_TEST_TIMEOUT 900)
    list(APPEND TULO_TEST_ENVIRONMENT
        UBSAN_OPTIONS=print_stacktrace=1
        LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/leaks.supp:print_suppressions=0)
endif()

if(TULO_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "TULO_FUZZ needs clang, not ${CMAKE_CXX_COMPILER_ID}.")
    endif()
    # The fuzzer sees from these counters which code an input reaches.
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()

if(TULO_COVERAGE)
    # Counters are shared by the threads of a process.
    add_compile_options(--coverage -fprofile-update=atomic)
    add_link_options(--coverage)
endif()
