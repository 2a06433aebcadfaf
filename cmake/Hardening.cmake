# What an attacker who found a memory error would meet; and nothing in the binaries that tells where
# they were built. A distribution's own flags come on top and agree.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)

check_pie_supported()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

set(hardening -fstack-protector-strong -Wformat -Werror=format-security)
# Clang takes flags of other processors, and then warns of each.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "aarch64|arm64")
    set(control_flow -mbranch-protection=standard)
else()
    set(control_flow -fcf-protection)
endif()
foreach(flag -fstack-clash-protection ${control_flow})
    string(MAKE_C_IDENTIFIER "DOVMAD_HAVE${flag}" have)
    check_cxx_compiler_flag(${flag} ${have})  # by compiler and processor
    if(${have})
        list(APPEND hardening ${flag})
    endif()
endforeach()

# What needs an optimiser, or would hide the sources from a debugger.
set(optimised "$<CONFIG:Release,RelWithDebInfo,MinSizeRel>")
add_library(dovmad_hardening INTERFACE)
target_compile_options(
    dovmad_hardening
    INTERFACE ${hardening}
              # Undefined first: a compiler or a distribution may have chosen another level.
              "$<${optimised}:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>"
              "$<${optimised}:-ffile-prefix-map=${PROJECT_BINARY_DIR}=build>"
              "$<${optimised}:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.>")
target_link_options(dovmad_hardening INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)

# What nobody calls serves attackers alone, and takes memory: a fifth of the daemon.
target_compile_options(dovmad_hardening
                       INTERFACE "$<${optimised}:-ffunction-sections;-fdata-sections>")
target_link_options(dovmad_hardening INTERFACE "$<${optimised}:-Wl,--gc-sections>")
