# tulo_precompile(TARGET [TEST [OPEN]])
#
# Compiles the headers of Qt, log4cplus and the standard library once for all
# targets with the same flags: they are most of the work of every source. TEST is
# for tests, OPEN for those compiled without access control. Each source includes
# what it uses; a build with TULO_PRECOMPILE off, which CI makes, shows what is
# missing.
option(TULO_PRECOMPILE "Compile the headers of the libraries once" ON)

set(tulo_precompiled_headers
    <QCache> <QCoreApplication> <QDateTime> <QDeadlineTimer> <QDir> <QFile> <QFileInfo> <QHash>
    <QMetaMethod> <QMutex> <QProcess> <QRegularExpression> <QSet> <QStringList> <QTemporaryDir>
    <QThread> <QTimer> <QVariant> <QVector> <QWaitCondition>
    <log4cplus/appender.h> <log4cplus/logger.h> <log4cplus/loggingmacros.h>
    <log4cplus/spi/loggingevent.h>
    <algorithm> <functional> <memory> <string> <vector>)

function(tulo_add_precompiled name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "HEADERS;LIBRARIES;OPTIONS")
    # Leaves the file alone when it is there already.
    file(CONFIGURE OUTPUT ${name}.cpp CONTENT "// Compiled for its precompiled headers.\n")
    add_library(${name} OBJECT ${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp)
    set_target_properties(${name} PROPERTIES AUTOMOC OFF)
    target_compile_options(${name} PRIVATE -fPIC ${arg_OPTIONS})
    target_precompile_headers(${name} PRIVATE ${tulo_precompiled_headers} ${arg_HEADERS})
    target_link_libraries(${name} PRIVATE
        tulo_warnings Qt5::Core log4cplus::log4cplus ${arg_LIBRARIES})
endfunction()

if(TULO_PRECOMPILE)
    tulo_add_precompiled(tulo_precompiled)
endif()

function(tulo_precompile target)
    if(NOT TULO_PRECOMPILE)
        return()
    endif()
    # Programs and libraries alike, so that all share the same compiled headers.
    target_compile_options(${target} PRIVATE -fPIC)
    list(JOIN ARGN _ variant)
    string(TOLOWER "${variant}" variant)
    if(variant)
        target_precompile_headers(${target} REUSE_FROM tulo_precompiled_${variant})
    else()
        target_precompile_headers(${target} REUSE_FROM tulo_precompiled)
    endif()
endfunction()
