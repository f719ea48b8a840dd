# tulo_warnings: what every target of ours is compiled with, linked privately.

option(TULO_WARNINGS_AS_ERRORS "A warning stops the build" OFF)

add_library(tulo_warnings INTERFACE)
target_compile_options(tulo_warnings INTERFACE
    -Wall
    -Wextra
    -Wpedantic
    -Wshadow
    -Wconversion
    # Qt counts in int and the standard library in size_t; casting between the
    # two at every turn hides more than it shows.
    -Wno-sign-conversion
    -Wformat=2
    -Wcast-qual
    -Wnon-virtual-dtor
    -Woverloaded-virtual
    -Wsuggest-override
    # Qt's QSKIP() takes arguments that are usually left out, which C++20 allows.
    $<$<CXX_COMPILER_ID:Clang>:-Wno-gnu-zero-variadic-macro-arguments>
    $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-cond>
    $<$<CXX_COMPILER_ID:GNU>:-Wlogical-op>
    $<$<BOOL:${TULO_WARNINGS_AS_ERRORS}>:-Werror>)

target_compile_definitions(tulo_warnings INTERFACE
    QT_NO_CAST_FROM_ASCII
    QT_NO_CAST_TO_ASCII
    QT_NO_URL_CAST_FROM_STRING
    QT_NO_FOREACH
    QT_NO_NARROWING_CONVERSIONS_IN_CONNECT)
