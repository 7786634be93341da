# What `cmake --install` puts under the prefix besides the program itself (installed with its
# target): the schema script, the desktop entry, the icon, the manual page and the systemd
# user unit. Any prefix works: the program finds the schema relative to itself, and the files
# that name the program are written at install time with the prefix actually used.

install(FILES ${PROJECT_SOURCE_DIR}/resources/Schema.sql
        DESTINATION ${CMAKE_INSTALL_DATADIR}/pointlane)

# The desktop entry and the user unit run the installed program by its full path.
set(pointlane_install_staging ${CMAKE_BINARY_DIR}/install-staging)
install(CODE "
  if(IS_ABSOLUTE \"${CMAKE_INSTALL_BINDIR}\")
    set(POINTLANE_INSTALLED_BINARY \"${CMAKE_INSTALL_BINDIR}/pointlane\")
  else()
    set(POINTLANE_INSTALLED_BINARY \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/pointlane\")
  endif()
  configure_file(\"${PROJECT_SOURCE_DIR}/packaging/pointlane.desktop.in\"
                 \"${pointlane_install_staging}/pointlane.desktop\" @ONLY)
  configure_file(\"${PROJECT_SOURCE_DIR}/packaging/pointlane.service.in\"
                 \"${pointlane_install_staging}/pointlane.service\" @ONLY)
")
install(FILES ${pointlane_install_staging}/pointlane.desktop
        DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES ${pointlane_install_staging}/pointlane.service DESTINATION lib/systemd/user)

install(FILES ${PROJECT_SOURCE_DIR}/docs/pointlane.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

# The icon: the scalable drawing, and PNG renderings of it in the sizes desktops ask for,
# made at build time by rsvg-convert (Debian package librsvg2-bin, installed by setup).
set(pointlane_icon ${PROJECT_SOURCE_DIR}/resources/pointlane.svg)
set(pointlane_icon_dir ${CMAKE_INSTALL_DATADIR}/icons/hicolor)
install(FILES ${pointlane_icon} DESTINATION ${pointlane_icon_dir}/scalable/apps)
find_program(POINTLANE_RSVG_CONVERT rsvg-convert)
if(POINTLANE_RSVG_CONVERT)
  set(pointlane_icon_pngs)
  foreach(size 16 22 24 32 48 64 128 256)
    set(dir ${CMAKE_BINARY_DIR}/icons/${size}x${size})
    add_custom_command(
      OUTPUT ${dir}/pointlane.png
      COMMAND ${CMAKE_COMMAND} -E make_directory ${dir}
      COMMAND ${POINTLANE_RSVG_CONVERT} -w ${size} -h ${size} -o ${dir}/pointlane.png
              ${pointlane_icon}
      DEPENDS ${pointlane_icon}
      COMMENT "Rendering the ${size}x${size} icon"
      VERBATIM)
    list(APPEND pointlane_icon_pngs ${dir}/pointlane.png)
    install(FILES ${dir}/pointlane.png DESTINATION ${pointlane_icon_dir}/${size}x${size}/apps)
  endforeach()
  add_custom_target(pointlane_icons ALL DEPENDS ${pointlane_icon_pngs})
else()
  message(WARNING "rsvg-convert (librsvg2-bin) not found: only the scalable icon is installed")
endif()
