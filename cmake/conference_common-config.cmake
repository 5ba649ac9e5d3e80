# The installed package: the libraries, and cJSON, whose trees the JSON functions hand out.
include(CMakeFindDependencyMacro)
find_dependency(PkgConfig)
if(NOT TARGET PkgConfig::CJSON)
    pkg_check_modules(CJSON REQUIRED IMPORTED_TARGET libcjson)
endif()
include(${CMAKE_CURRENT_LIST_DIR}/conference_common-targets.cmake)
