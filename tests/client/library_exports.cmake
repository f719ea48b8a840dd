# A library for programs has its soname and exports nothing outside the namespace tulo. What the
# standard library marks as visible in every library is not ours.
#
#   cmake -D LIBRARY=FILE -D SONAME=NAME -P library_exports.cmake
include(${CMAKE_CURRENT_LIST_DIR}/../system/plugin_checks.cmake)

run(dynamic readelf --dynamic --wide ${LIBRARY})
string(REGEX MATCHALL "\\(SONAME\\)[^\n]*" soname "${dynamic}")
if(NOT soname MATCHES "\\[${SONAME}\\]$")
    message(FATAL_ERROR "${LIBRARY}: the soname is '${soname}', not ${SONAME}")
endif()

run(symbols nm --dynamic --defined-only --demangle ${LIBRARY})
string(REPLACE ";" "," symbols "${symbols}")
string(REGEX REPLACE "\n$" "" symbols "${symbols}")
string(REPLACE "\n" ";" symbols "${symbols}")
set(ours 0)
set(others "")
foreach(line IN LISTS symbols)
    string(REGEX REPLACE "^[0-9a-f]+ [A-Za-z] " "" symbol "${line}")
    # Such as "vtable for tulo::Watch" and "non-virtual thunk to tulo::...".
    if(symbol MATCHES "^((vtable|typeinfo|typeinfo name|VTT|guard variable) for |(non-virtual|virtual) thunk to )?tulo::")
        math(EXPR ours "${ours} + 1")
    elseif(NOT symbol MATCHES "^([a-z ]+ )?(std::|__gnu_cxx::)")
        string(APPEND others "\n  ${symbol}")
    endif()
endforeach()
if(ours EQUAL 0)
    message(FATAL_ERROR "${LIBRARY}: exports nothing of ours:\n${symbols}")
endif()
if(others)
    message(FATAL_ERROR "${LIBRARY}: exports what is not in the namespace tulo:${others}")
endif()
