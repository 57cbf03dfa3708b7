# drx_export_only_drn(TARGET): a shared library that resolves all of its own references and
# exports nothing but the drn API. Hidden visibility keeps the library's internals out; the
# version script also keeps out the standard-library template instances that it happens to
# contain (their namespace declares default visibility, which -fvisibility does not override).
set(DRX_EXPORT_MAP ${CMAKE_CURRENT_LIST_DIR}/drn-exports.map)

function(drx_export_only_drn target)
  set_target_properties(${target} PROPERTIES CXX_VISIBILITY_PRESET hidden
                                             VISIBILITY_INLINES_HIDDEN ON
                                             LINK_DEPENDS ${DRX_EXPORT_MAP})
  target_link_options(${target} PRIVATE LINKER:--version-script=${DRX_EXPORT_MAP})
  # Every symbol the library needs must come from its declared dependencies (clang's sanitizer
  # runtimes are linked into executables only, so fuzzing builds leave this check out).
  if(NOT DRX_BUILD_FUZZERS)
    target_link_options(${target} PRIVATE LINKER:--no-undefined)
  endif()
endfunction()
