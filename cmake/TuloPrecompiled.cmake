# tulo_precompile(TARGET [OPEN])
#
# Compiles the headers of Qt, log4cplus and the standard library once for all
# targets with the same flags: they are most of the work of every source. OPEN
# is for targets compiled without access control. Sources include what they use
# all the same: a build with TULO_PRECOMPILE off, as CI makes with clang, finds
# what is missing.
option(TULO_PRECOMPILE "Compile the headers of the libraries once" ON)

set(tulo_precompiled_headers
    <QtTest/QtTest>
    <QCache> <QCoreApplication> <QDateTime> <QDeadlineTimer> <QDir> <QElapsedTimer> <QFile>
    <QFileInfo> <QHash> <QMap> <QMetaMethod> <QMutex> <QObject> <QProcess> <QRegExp>
    <QRegularExpression> <QSet> <QStringList> <QTemporaryDir> <QThread> <QTimer> <QVariant>
    <QVector> <QWaitCondition>
    <log4cplus/appender.h> <log4cplus/logger.h> <log4cplus/loggingmacros.h>
    <log4cplus/spi/loggingevent.h>
    <algorithm> <atomic> <functional> <memory> <optional> <sstream> <string> <vector>)

function(tulo_add_precompiled name)
    file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp "")
    add_library(${name} OBJECT ${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp)
    set_target_properties(${name} PROPERTIES AUTOMOC OFF)
    target_compile_options(${name} PRIVATE -fPIC ${ARGN})
    target_precompile_headers(${name} PRIVATE ${tulo_precompiled_headers})
    target_link_libraries(${name} PRIVATE
        tulo_warnings Qt5::Core Qt5::Test log4cplus::log4cplus)
endfunction()

if(TULO_PRECOMPILE)
    find_package(Qt5 5.15 REQUIRED COMPONENTS Test)
    tulo_add_precompiled(tulo_precompiled)
    tulo_add_precompiled(tulo_precompiled_open -fno-access-control)
endif()

function(tulo_precompile target)
    if(NOT TULO_PRECOMPILE)
        return()
    endif()
    # Programs and libraries alike, so that all share the same compiled headers.
    target_compile_options(${target} PRIVATE -fPIC)
    if("OPEN" IN_LIST ARGN)
        target_precompile_headers(${target} REUSE_FROM tulo_precompiled_open)
    else()
        target_precompile_headers(${target} REUSE_FROM tulo_precompiled)
    endif()
endfunction()
