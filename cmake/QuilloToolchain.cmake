# Compiler settings shared by every target: warnings, sanitizers, ccache.

find_program(QL_CCACHE ccache)
if(QL_CCACHE)
  set(CMAKE_C_COMPILER_LAUNCHER "${QL_CCACHE}")
  set(CMAKE_CXX_COMPILER_LAUNCHER "${QL_CCACHE}")
endif()

add_library(ql_build_flags INTERFACE)
target_compile_options(ql_build_flags INTERFACE -Wall -Wextra)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # g++ 12 warns about coroutine frames and Asio internals that are fine.
  target_compile_options(ql_build_flags INTERFACE -Wno-mismatched-new-delete)
endif()
target_compile_definitions(ql_build_flags INTERFACE ASIO_NO_DEPRECATED)

if(QL_SANITIZE)
  set(QL_SANITIZER_FLAGS -fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_compile_options(${QL_SANITIZER_FLAGS})
  add_link_options(${QL_SANITIZER_FLAGS})
endif()

# The platform suffix that picks *_linux.cpp or *_darwin.cpp files.
if(APPLE)
  set(QL_PLATFORM darwin)
else()
  set(QL_PLATFORM linux)
endif()
