# tulo_add_test(NAME tst_xxx [WORKER] [ENGINE] [PROGRAM] [SOURCES file...] [LIBRARIES library...])
#
# One Qt Test program and the ctest test of the same name. SOURCES defaults to
# the file named like the test. That file includes the meta-object code "tst_xxx.moc".
#
#   WORKER  the test looks inside the worker: it is compiled without access
#           control and linked with the worker's own code
#   ENGINE  the test uses the engine library
#   PROGRAM the test starts tulo-cm
#
# The places a test needs (TULO_PLUGIN_FILE and so on) are defined by
# tests_support, which every test is linked with.
function(tulo_add_test)
    cmake_parse_arguments(PARSE_ARGV 0 arg "WORKER;ENGINE;PROGRAM" "NAME" "SOURCES;LIBRARIES")
    if(NOT arg_NAME OR arg_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "tulo_add_test: no NAME, or unknown: ${arg_UNPARSED_ARGUMENTS}")
    endif()
    if(NOT arg_SOURCES)
        set(arg_SOURCES ${arg_NAME}.cpp)
    endif()

    # Directly, not by AUTOMOC: that took as long as compiling the test.
    set(moc ${CMAKE_CURRENT_BINARY_DIR}/${arg_NAME}.moc)
    qt5_generate_moc(${arg_NAME}.cpp ${moc})
    add_executable(${arg_NAME} ${arg_SOURCES} ${moc})
    set_target_properties(${arg_NAME} PROPERTIES
        RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
    target_include_directories(${arg_NAME} PRIVATE ${CMAKE_CURRENT_BINARY_DIR})
    target_link_libraries(${arg_NAME} PRIVATE
        tulo_warnings tests_support ${arg_LIBRARIES} Tulo::Framework log4cplus::log4cplus Qt5::Test)
    if(arg_WORKER)
        target_compile_options(${arg_NAME} PRIVATE -fno-access-control)
        target_link_libraries(${arg_NAME} PRIVATE tests_worker)
        tulo_precompile(${arg_NAME} TEST OPEN)
    else()
        tulo_precompile(${arg_NAME} TEST)
    endif()
    if(arg_ENGINE)
        target_link_libraries(${arg_NAME} PRIVATE tulo_engine)
    endif()
    # Loaded by file name.
    add_dependencies(${arg_NAME} tulo_cb_settings)
    if(arg_PROGRAM)
        add_dependencies(${arg_NAME} tulo-cm)
    endif()

    add_test(NAME ${arg_NAME} COMMAND ${arg_NAME})
    # Qt's own limit for a test function is five minutes.
    math(EXPR milliseconds "${TULO_TEST_TIMEOUT} * 1000")
    set_tests_properties(${arg_NAME} PROPERTIES
        TIMEOUT ${TULO_TEST_TIMEOUT}
        ENVIRONMENT
            "LC_ALL=C.UTF-8;QTEST_FUNCTION_TIMEOUT=${milliseconds};${TULO_TEST_ENVIRONMENT}")
endfunction()

# tulo_count_reached()
#
# What the tests of this folder reach counts in a coverage build, a file for each process and
# library; what a random input or a program's session comes by does not.
function(tulo_count_reached)
    if(TULO_COVERAGE)
        get_directory_property(tests TESTS)
        set_property(TEST ${tests} APPEND PROPERTY ENVIRONMENT
            LLVM_PROFILE_FILE=${PROJECT_BINARY_DIR}/profiles/%p-%m.profraw)
    endif()
endfunction()
