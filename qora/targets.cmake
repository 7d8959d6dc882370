# SPDX-License-Identifier: BSD-2-Clause
# Flags for every target, and one function for each kind of target.
include(CheckCXXSourceCompiles)
include(CheckPIESupported)
check_pie_supported()

add_library(qora_warnings INTERFACE)
target_compile_options(qora_warnings INTERFACE -Wall -Wextra -Wshadow)
target_include_directories(qora_warnings INTERFACE ${PROJECT_SOURCE_DIR})

# What ships: no exceptions, no run-time types, hardened.
add_library(qora_product INTERFACE)
target_link_libraries(qora_product INTERFACE qora_warnings)
target_compile_options(qora_product INTERFACE -fno-exceptions -fno-rtti -fstack-protector-strong)
# Nobody replaces our functions at run time, so one may be inlined into its neighbours.
target_compile_options(qora_product INTERFACE -fno-semantic-interposition)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
  target_compile_options(qora_product INTERFACE -fcf-protection)
endif()
if(CMAKE_BUILD_TYPE STREQUAL "Release" OR CMAKE_BUILD_TYPE STREQUAL "RelWithDebInfo")
  # A distribution's compiler or its flags may have set it already, to another number.
  set(CMAKE_REQUIRED_FLAGS -O2)
  check_cxx_source_compiles("
    #ifdef _FORTIFY_SOURCE
    #error
    #endif
    int main() { return 0; }" QORA_SETS_FORTIFY)
  unset(CMAKE_REQUIRED_FLAGS)
  if(QORA_SETS_FORTIFY)
    target_compile_definitions(qora_product INTERFACE _FORTIFY_SOURCE=2)
  endif()
  # The same bytes wherever it is built.
  target_compile_options(qora_product INTERFACE
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/= -ffile-prefix-map=${PROJECT_BINARY_DIR}=build)
endif()
target_link_options(qora_product INTERFACE LINKER:-z,relro,-z,now)

# How we build is nothing to those who link an installed library.
function(qora_library name)
  add_library(${name} STATIC ${ARGN})
  target_link_libraries(${name} PUBLIC $<BUILD_INTERFACE:qora_product>)
  target_include_directories(${name} INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_compile_features(${name} PUBLIC cxx_std_20)
  string(REPLACE "_" "-" output ${name})
  string(REPLACE "qora_" "" exported ${name})
  set_target_properties(${name} PROPERTIES OUTPUT_NAME ${output} EXPORT_NAME ${exported})
endfunction()

function(qora_executable name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE qora_product)
endfunction()
