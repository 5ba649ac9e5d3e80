# Builds for 32-bit pointers, as a terminal has them, on a 64-bit workstation: clang and lld against a
# sysroot of Debian's i386 packages (scripts/ilp32-sysroot). What is built runs as it is, by the
# sysroot's own loader and libraries; or, where the kernel refuses 32-bit programs, by an emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)

get_filename_component(_source_dir "${CMAKE_CURRENT_LIST_DIR}" DIRECTORY)
set(CONF_ILP32_SYSROOT "${_source_dir}/build/ilp32-sysroot" CACHE PATH
    "Sysroot of the 32-bit build")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CONF_ILP32_SYSROOT)
if(NOT EXISTS "${CONF_ILP32_SYSROOT}/.complete")
    execute_process(
        COMMAND "${_source_dir}/scripts/ilp32-sysroot" "${CONF_ILP32_SYSROOT}"
        RESULT_VARIABLE _result)
    if(NOT _result EQUAL 0)
        message(FATAL_ERROR "The i386 sysroot could not be made; the lines above say why.")
    endif()
endif()

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET i686-linux-gnu)
set(CMAKE_CXX_COMPILER_TARGET i686-linux-gnu)
set(CMAKE_SYSROOT "${CONF_ILP32_SYSROOT}")

set(_compile "--gcc-toolchain=${CONF_ILP32_SYSROOT}/usr -D_FILE_OFFSET_BITS=64")
set(CMAKE_C_FLAGS_INIT "${_compile}")
set(CMAKE_CXX_FLAGS_INIT "${_compile}")

# The old form of the run path is the one that counts for libraries of libraries too.
set(_libraries "${CONF_ILP32_SYSROOT}/lib/i386-linux-gnu:${CONF_ILP32_SYSROOT}/usr/lib/i386-linux-gnu")
set(_link "-fuse-ld=lld -Wl,--disable-new-dtags -Wl,-rpath,${_libraries}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_link}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_link}")
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "${_link} -Wl,--dynamic-linker=${CONF_ILP32_SYSROOT}/lib/ld-linux.so.2")

set(CMAKE_FIND_ROOT_PATH "${CONF_ILP32_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CONF_ILP32_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${CONF_ILP32_SYSROOT}/usr/lib/i386-linux-gnu/pkgconfig:${CONF_ILP32_SYSROOT}/usr/share/pkgconfig")

# The loader is a small 32-bit program.
if(NOT DEFINED CACHE{CONF_EMULATE})
    execute_process(COMMAND "${CONF_ILP32_SYSROOT}/lib/ld-linux.so.2" --version
        RESULT_VARIABLE _refused OUTPUT_QUIET ERROR_QUIET)
    set(CONF_EMULATE OFF)
    if(_refused)
        set(CONF_EMULATE ON)
    endif()
    set(CONF_EMULATE ${CONF_EMULATE} CACHE BOOL "Run what is built with qemu-user")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CONF_EMULATE)

# An emulated program starts others through the kernel, which refuses them. So what is linked becomes
# NAME.i386, and NAME a script that starts the emulator with it: everybody starts NAME. CMake itself
# looks into the programs that it tries.
get_property(_trying GLOBAL PROPERTY IN_TRY_COMPILE)
if(CONF_EMULATE AND NOT _trying)
    find_program(CONF_EMULATOR qemu-i386 REQUIRED)
    file(CONFIGURE OUTPUT "${CMAKE_BINARY_DIR}/emulated" @ONLY CONTENT
        "#!/bin/sh\nexec '@CONF_EMULATOR@' -0 \"$0\" \"$0.i386\" \"$@\"\n")
    file(CHMOD "${CMAKE_BINARY_DIR}/emulated"
        PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE)
    foreach(_language C CXX)
        set(CMAKE_${_language}_LINK_EXECUTABLE
            "<CMAKE_${_language}_COMPILER> <FLAGS> <CMAKE_${_language}_LINK_FLAGS> <LINK_FLAGS> <OBJECTS> -o <TARGET>.i386 <LINK_LIBRARIES>"
            "<CMAKE_COMMAND> -E copy \"${CMAKE_BINARY_DIR}/emulated\" <TARGET>")
    endforeach()
endif()
