# Flags of our own code. `pelorus_flags` is linked by every target of this tree, never exported.
add_library(pelorus_flags INTERFACE)
target_compile_options(pelorus_flags INTERFACE -Wall -Wextra -Wconversion -Wshadow
  -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)  # no path of the building machine in the programs
if(PELORUS_WERROR)
  target_compile_options(pelorus_flags INTERFACE -Werror)
endif()
target_include_directories(pelorus_flags INTERFACE ${PROJECT_SOURCE_DIR})

if(PELORUS_HARDENING)
  target_compile_options(pelorus_flags INTERFACE
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=  # nor in what debuggers read: builds are reproducible
    -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 -fstack-protector-strong -fstack-clash-protection)
  target_compile_definitions(pelorus_flags INTERFACE _GLIBCXX_ASSERTIONS)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
    target_compile_options(pelorus_flags INTERFACE -fcf-protection=full)
  endif()
  target_link_options(pelorus_flags INTERFACE
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=  # link-time optimisation writes the folder once more
    -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
  include(CheckPIESupported)
  check_pie_supported()
endif()

if(PELORUS_SANITIZE)
  add_compile_options(-fsanitize=${PELORUS_SANITIZE} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  # g++'s library opens a pipe to look at an object's type, and calls every type wrong when a test
  # has used up the descriptors.
  add_compile_options($<$<COMPILE_LANG_AND_ID:CXX,GNU>:-fno-sanitize=vptr>)
  add_link_options(-fsanitize=${PELORUS_SANITIZE})
endif()

if(PELORUS_CCACHE)
  find_program(CCACHE ccache)
  if(CCACHE)
    set(CMAKE_C_COMPILER_LAUNCHER ${CCACHE})
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
  endif()
endif()
