# The AF_XDP backend.  The steering program is compiled for the BPF target
# and its object file is linked into libfrio as read-only data, so that the
# library needs no file of its own at run time.
find_package(PkgConfig)
set(frio_xdp_missing)
if(PkgConfig_FOUND)
  pkg_check_modules(FRIO_LIBXDP QUIET libxdp)
  pkg_check_modules(FRIO_LIBBPF QUIET libbpf)
  if(NOT FRIO_LIBXDP_FOUND)
    list(APPEND frio_xdp_missing "libxdp (libxdp-dev)")
  endif()
  if(NOT FRIO_LIBBPF_FOUND)
    list(APPEND frio_xdp_missing "libbpf (libbpf-dev)")
  endif()
else()
  list(APPEND frio_xdp_missing "pkg-config")
endif()
find_program(FRIO_BPF_CLANG NAMES clang clang-16 clang-15 clang-14)
if(NOT FRIO_BPF_CLANG)
  list(APPEND frio_xdp_missing "clang")
endif()
find_program(FRIO_BPF_STRIP NAMES llvm-strip llvm-strip-16 llvm-strip-15
  llvm-strip-14)

set(frio_xdp_src ${CMAKE_CURRENT_LIST_DIR}/src/backend_xdp.cc)
if(frio_xdp_missing)
  # Said loudly: without it every handle uses AF_PACKET, which taps a copy
  # of each frame rather than taking it from the kernel.
  string(REPLACE ";" ", " frio_xdp_missing "${frio_xdp_missing}")
  message(WARNING "libfrio is built WITHOUT its AF_XDP backend: missing "
    "${frio_xdp_missing}.  The default backend becomes `packet' "
    "(AF_PACKET); install the missing packages (scripts/setup.sh) and "
    "configure again for `xdp'.")
  # The source glob picked it up; keep it out of this build.
  set_source_files_properties(${frio_xdp_src} PROPERTIES HEADER_FILE_ONLY ON)
  return()
endif()
pkg_check_modules(FRIO_XDP REQUIRED IMPORTED_TARGET libxdp libbpf)

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

target_sources(frio_objects PRIVATE ${frio_xdp_src} ${frio_bpf_embed})
target_include_directories(frio_objects PRIVATE ${CMAKE_CURRENT_LIST_DIR}/bpf)
target_link_libraries(frio_objects PUBLIC PkgConfig::FRIO_XDP)
