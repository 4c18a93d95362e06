# The AF_XDP backend.  The steering program is compiled for the BPF target
# and its object file is linked into libfrio as read-only data, so that the
# library needs no file of its own at run time.
find_package(PkgConfig)
if(PkgConfig_FOUND)
  pkg_check_modules(FRIO_XDP IMPORTED_TARGET libxdp libbpf)
endif()
find_program(FRIO_BPF_CLANG NAMES clang clang-16 clang-15 clang-14)
find_program(FRIO_BPF_STRIP NAMES llvm-strip llvm-strip-16 llvm-strip-15
  llvm-strip-14)

set(frio_xdp_src ${CMAKE_CURRENT_LIST_DIR}/src/backend_xdp.cc)
if(NOT FRIO_XDP_FOUND OR NOT FRIO_BPF_CLANG)
  message(STATUS "libfrio: no AF_XDP backend (needs libxdp-dev, libbpf-dev "
    "and clang)")
  # The source glob picked it up; keep it out of this build.
  set_source_files_properties(${frio_xdp_src} PROPERTIES HEADER_FILE_ONLY ON)
  return()
endif()

# clang -target bpf does not search the multiarch directory for <asm/...>.
execute_process(COMMAND ${CMAKE_C_COMPILER} -print-multiarch
  OUTPUT_VARIABLE frio_multiarch OUTPUT_STRIP_TRAILING_WHITESPACE
  ERROR_QUIET)
set(frio_bpf_includes -I${CMAKE_CURRENT_LIST_DIR}/bpf)
if(frio_multiarch)
  list(APPEND frio_bpf_includes -I/usr/include/${frio_multiarch})
endif()

set(frio_bpf_src ${CMAKE_CURRENT_LIST_DIR}/bpf/frio_steer.bpf.c)
set(frio_bpf_obj ${CMAKE_CURRENT_BINARY_DIR}/frio_steer.bpf.o)
# DWARF is dropped; BTF, which the map definitions need, stays.
if(FRIO_BPF_STRIP)
  set(frio_bpf_strip COMMAND ${FRIO_BPF_STRIP} -g ${frio_bpf_obj})
endif()
add_custom_command(OUTPUT ${frio_bpf_obj}
  COMMAND ${FRIO_BPF_CLANG} -target bpf -O2 -g -Wall -Werror
    ${frio_bpf_includes} -c ${frio_bpf_src} -o ${frio_bpf_obj}
  ${frio_bpf_strip}
  DEPENDS ${frio_bpf_src} ${CMAKE_CURRENT_LIST_DIR}/bpf/frio_steer.h
  COMMENT "Building the XDP steering program"
  VERBATIM)

set(frio_bpf_embed ${CMAKE_CURRENT_BINARY_DIR}/frio_steer_obj.S)
file(CONFIGURE OUTPUT ${frio_bpf_embed} CONTENT
"\t.section .rodata.frio_steer_obj,\"a\",@progbits
\t.globl frio_steer_obj
\t.hidden frio_steer_obj
\t.globl frio_steer_obj_end
\t.hidden frio_steer_obj_end
\t.balign 8
frio_steer_obj:
\t.incbin \"${frio_bpf_obj}\"
frio_steer_obj_end:
\t.section .note.GNU-stack,\"\",@progbits
")
set_source_files_properties(${frio_bpf_embed} PROPERTIES
  OBJECT_DEPENDS ${frio_bpf_obj})

target_sources(frio PRIVATE ${frio_xdp_src} ${frio_bpf_embed})
target_include_directories(frio PRIVATE ${CMAKE_CURRENT_LIST_DIR}/bpf)
target_link_libraries(frio PRIVATE PkgConfig::FRIO_XDP)
# For the tests that load the program on their own.
set_property(GLOBAL PROPERTY FRIO_STEER_OBJECT ${frio_bpf_obj})
