# kestrelyn.pc names its folders relative to its own location (${pcfiledir}),
# so an install made with any --prefix, or moved afterwards, points at itself.
# Folders given as absolute paths cannot move with the prefix and stay as given.
function(ky_configure_pkg_config template output)
  set(_pcdir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
    set(KY_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
    set(KY_PC_LIBDIR "${CMAKE_INSTALL_FULL_LIBDIR}")
    set(KY_PC_INCLUDEDIR "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
  else()
    # From <prefix>/<libdir>/pkgconfig back up to <prefix>: one ".." a level.
    string(REGEX REPLACE "[^/]+" ".." _up "${_pcdir}")
    set(KY_PC_PREFIX "\${pcfiledir}/${_up}")
    set(KY_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
    set(KY_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
  endif()
  configure_file(${template} ${output} @ONLY)
endfunction()
