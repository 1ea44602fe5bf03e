# `cmake --install build --prefix P` puts in place, by component
# (`--component app` or `--component server` for one of them):
#   app:    P/bin/rongdian, P/bin/rongdian-score, their man pages,
#           P/share/applications/rongdian.desktop and the icon it names,
#           P/share/icons/hicolor/256x256/apps/rongdian.png. The app carries
#           its QML screens and pictures compiled in as Qt resources
#           (qrc:/qml, qrc:/pictures), so none of them is installed as a file;
#           the QML modules it imports come from the system's Qt 6 packages.
#   server: P/bin/rongdian-server, its man page and P/share/rongdian/models,
#           the face model files the detection service loads; an installed
#           rongdian-server looks there by default (see --help, --models).
#   service (only when named, as the rongdian-server package does): the
#           systemd unit, /etc/default/rongdian-server and /var/lib/rongdian.
#           They name /usr/bin/rongdian-server, so they fit a /usr prefix only.

install(TARGETS rongdian-server RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT server)
install(TARGETS rongdian-score RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT app)

# Only the four networks the engine runs (the package has more).
set(RD_MODEL_SOURCE_DIR ${CMAKE_SOURCE_DIR}/models/face-api/model)
set(RD_MODEL_FILES)
foreach(net tiny_face_detector face_landmark_68 face_expression age_gender)
  list(APPEND RD_MODEL_FILES
    ${RD_MODEL_SOURCE_DIR}/${net}_model-weights_manifest.json
    ${RD_MODEL_SOURCE_DIR}/${net}_model.bin)
endforeach()
install(FILES ${RD_MODEL_FILES} DESTINATION ${RD_INSTALL_MODELS_DIR} COMPONENT server)

if(RD_BUILD_APP)
  install(TARGETS rongdian RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT app)
  install(FILES ${CMAKE_SOURCE_DIR}/app/ui/rongdian.desktop
    DESTINATION ${CMAKE_INSTALL_DATADIR}/applications COMPONENT app)
  install(FILES ${CMAKE_SOURCE_DIR}/app/ui/pictures/icon/rongdian.png
    DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/256x256/apps COMPONENT app)
endif()

# Man pages, made by help2man from each program's --help whenever the program
# is linked again, so they say what the binary says.
find_program(RD_HELP2MAN help2man)
if(RD_HELP2MAN)
  set(RD_MAN_DIR ${CMAKE_BINARY_DIR}/man)
  set(RD_MAN_PAGES)
  #   rd_man_page(target component "one-line description")
  function(rd_man_page target component description)
    set(page ${RD_MAN_DIR}/${target}.1.gz)
    add_custom_command(OUTPUT ${page}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${RD_MAN_DIR}
      COMMAND ${CMAKE_COMMAND} -E env QT_QPA_PLATFORM=offscreen
        ${CMAKE_SOURCE_DIR}/packaging/man-page.sh ${RD_HELP2MAN} $<TARGET_FILE:${target}>
        ${target} ${PROJECT_VERSION} "${description}" ${page}
      DEPENDS ${target} ${CMAKE_SOURCE_DIR}/packaging/man-page.sh ${CMAKE_CURRENT_LIST_FILE}
      COMMENT "Man page of ${target}"
      VERBATIM)
    install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${component})
    set(RD_MAN_PAGES ${RD_MAN_PAGES} ${page} PARENT_SCOPE)
  endfunction()
  rd_man_page(rongdian-server server
    "backend of the rongdian app: API, photo storage, push and face detection")
  rd_man_page(rongdian-score app "score a face photo the way the rongdian app does")
  if(RD_BUILD_APP)
    rd_man_page(rongdian app "photograph a face, score it and share it")
  endif()
  add_custom_target(man_pages ALL DEPENDS ${RD_MAN_PAGES})
else()
  message(STATUS "help2man not found: no man pages (scripts/setup.sh installs it)")
endif()

# The service: Debian paths, only for the package (see cmake/Package.cmake).
install(FILES ${CMAKE_SOURCE_DIR}/packaging/rongdian-server.service
  DESTINATION lib/systemd/system COMPONENT service EXCLUDE_FROM_ALL)
install(FILES ${CMAKE_SOURCE_DIR}/packaging/rongdian-server.default
  DESTINATION /etc/default RENAME rongdian-server COMPONENT service EXCLUDE_FROM_ALL)
install(DIRECTORY DESTINATION /var/lib/rongdian COMPONENT service EXCLUDE_FROM_ALL)

include(${CMAKE_CURRENT_LIST_DIR}/Package.cmake)
