# Run by `cmake --install` and cpack: writes the systemd user units with ExecStart pointing at
# the program under the prefix of this install (which `--prefix` or cpack may choose only
# now), then installs them. Set by packaging/CMakeLists.txt: VK_UNIT_SOURCE_DIR,
# VK_UNIT_STAGING_DIR, VK_UNIT_BINDIR, VK_UNIT_DESTINATION.
if(IS_ABSOLUTE "${VK_UNIT_BINDIR}")
  set(bindir "${VK_UNIT_BINDIR}")
else()
  set(bindir "${CMAKE_INSTALL_PREFIX}/${VK_UNIT_BINDIR}")
endif()
file(GLOB units "${VK_UNIT_SOURCE_DIR}/*.service" "${VK_UNIT_SOURCE_DIR}/*.timer")
set(staged "")
foreach(unit IN LISTS units)
  get_filename_component(name "${unit}" NAME)
  file(READ "${unit}" text)
  # The sources name /usr/local/bin/vksecurity so they also work copied by hand.
  string(REPLACE "/usr/local/bin/vksecurity" "${bindir}/vksecurity" text "${text}")
  file(WRITE "${VK_UNIT_STAGING_DIR}/${name}" "${text}")
  list(APPEND staged "${VK_UNIT_STAGING_DIR}/${name}")
endforeach()
file(INSTALL DESTINATION "${CMAKE_INSTALL_PREFIX}/${VK_UNIT_DESTINATION}" TYPE FILE
     FILES ${staged})
