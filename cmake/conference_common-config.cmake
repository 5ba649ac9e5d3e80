# The installed package: the libraries, and cJSON, whose trees the JSON functions hand out.
include(CMakeFindDependencyMacro)
find_dependency(PkgConfig)
if(NOT TARGET PkgConfig::CJSON)
    pkg_check_modules(CJSON QUIET IMPORTED_TARGET libcjson)
    if(NOT CJSON_FOUND)
        set(conference_common_FOUND FALSE)
        set(conference_common_NOT_FOUND_MESSAGE
            "pkg-config does not find libcjson, which the JSON functions need (Debian: libcjson-dev)")
        return()
    endif()
endif()
include(${CMAKE_CURRENT_LIST_DIR}/conference_common-targets.cmake)

foreach(component ${conference_common_FIND_COMPONENTS})
    if(NOT TARGET conference_common::${component})
        set(conference_common_${component}_FOUND FALSE)
        if(conference_common_FIND_REQUIRED_${component})
            set(conference_common_FOUND FALSE)
            set(conference_common_NOT_FOUND_MESSAGE
                "this installation has no component '${component}'")
        endif()
    endif()
endforeach()
