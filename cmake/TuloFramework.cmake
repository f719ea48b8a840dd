# Tulo::Framework, what a worker is compiled against and linked with.
#
# By default it is the stand-in of framework/. With an SDK it comes from there:
#
#   TULO_SDK_ROOT       folder of the SDK; its headers are below include/,
#                       include/tulo-framework/ or src/, as in include/api/core/tulo.h
#   TULO_SDK_LIBRARIES  list of the libraries to link: names, looked up in the
#                       SDK's lib folder, or full paths

if(NOT DEFINED TULO_SDK_ROOT)
    if(DEFINED TULO_SDK_LIBRARIES)
        message(FATAL_ERROR "TULO_SDK_LIBRARIES is set and TULO_SDK_ROOT is not.")
    endif()
    add_subdirectory(framework)
    return()
endif()

set(root "${TULO_SDK_ROOT}")
cmake_path(ABSOLUTE_PATH root NORMALIZE)
if("${TULO_SDK_ROOT}" STREQUAL "" OR NOT IS_DIRECTORY "${root}")
    message(FATAL_ERROR "TULO_SDK_ROOT is '${TULO_SDK_ROOT}', which is not a folder.")
endif()
if("${TULO_SDK_LIBRARIES}" STREQUAL "")
    message(FATAL_ERROR "TULO_SDK_LIBRARIES is empty; name the SDK's libraries to link.")
endif()

set(include_dir "")
foreach(folder IN ITEMS include include/tulo-framework src)
    if(EXISTS "${root}/${folder}/api/core/tulo.h")
        set(include_dir "${root}/${folder}")
        break()
    endif()
endforeach()
if(NOT include_dir)
    message(FATAL_ERROR "api/core/tulo.h is in neither include/, include/tulo-framework/ nor src/ of TULO_SDK_ROOT '${root}'.")
endif()

set(libraries "")
foreach(library IN LISTS TULO_SDK_LIBRARIES)
    if(IS_ABSOLUTE "${library}")
        if(NOT EXISTS "${library}")
            message(FATAL_ERROR "TULO_SDK_LIBRARIES names '${library}', which does not exist.")
        endif()
        set(file "${library}")
    else()
        find_library(file NAMES "${library}"
            PATHS "${root}/lib" "${root}/lib/${CMAKE_LIBRARY_ARCHITECTURE}"
            NO_CACHE NO_DEFAULT_PATH)
        if(NOT file)
            message(FATAL_ERROR
                "TULO_SDK_LIBRARIES names '${library}', which is not in '${root}/lib'.")
        endif()
    endif()
    list(APPEND libraries "${file}")
    unset(file)
endforeach()

add_library(Tulo::Framework INTERFACE IMPORTED)
target_include_directories(Tulo::Framework INTERFACE "${include_dir}")
target_link_libraries(Tulo::Framework INTERFACE Qt5::Core ${libraries})
message(STATUS "Tulo::Framework: headers of ${include_dir}, libraries ${libraries}")
