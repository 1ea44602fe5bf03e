# `make package`: the two Debian packages, made by CPack's DEB generator from
# this build's install components (docs/deploy.md says why CPack):
#   rongdian         the app and rongdian-score (component app)
#   rongdian-server  the server, its models and the service (server, service)
# Their library dependencies are computed by dpkg-shlibdeps; the QML modules
# the app imports are found when packaging (cmake/PackageQmlDepends.cmake).

# CPack builds the `preinstall` target first, which would be every target of
# the tree (tests and benchmarks too); `make package` builds what the
# packages hold instead.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME rongdian)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "the rongdian developers")
set(CPACK_PACKAGE_CONTACT "rongdian developers <rongdian@example.com>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL app server service)
set(CPACK_COMPONENT_SERVER_GROUP server)
set(CPACK_COMPONENT_SERVICE_GROUP server)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_APP_PACKAGE_NAME rongdian)
set(CPACK_DEBIAN_APP_PACKAGE_SECTION graphics)
set(CPACK_DEBIAN_APP_DESCRIPTION "phone app that scores a photographed face
容点 photographs a face and scores its eyes, nose, mouth and 气质; scored
photos can be published to a ranking and a newest feed, liked and commented
on. The package holds the app (Qt Quick) and rongdian-score, which scores a
photo or a saved detection answer from the command line. Both talk to a
rongdian-server (package rongdian-server).")
# Loaded at run time, so no library dependency names them: the CJK font the
# screens are drawn in, GStreamer's encoders for voice notes, Qt's own texts
# in Chinese.
set(CPACK_DEBIAN_APP_PACKAGE_RECOMMENDS
  "fonts-noto-cjk, gstreamer1.0-plugins-good, qt6-translations-l10n")

set(CPACK_DEBIAN_SERVER_PACKAGE_NAME rongdian-server)
set(CPACK_DEBIAN_SERVER_PACKAGE_SECTION net)
set(CPACK_DEBIAN_SERVER_DESCRIPTION "backend of the 容点 face-scoring app
One server for the app: its API, photo storage, push gateway and a face
detection service (OpenCV DNN with the face-api model files, included).
It runs as the systemd service rongdian-server under its own user, with its
data in /var/lib/rongdian and its settings in /etc/default/rongdian-server;
SQLite by default, PostgreSQL for several servers.")
# adduser: the service's user, made by postinst.
set(CPACK_DEBIAN_SERVER_PACKAGE_DEPENDS "adduser")
set(CPACK_DEBIAN_SERVER_PACKAGE_CONTROL_EXTRA
  ${CMAKE_SOURCE_DIR}/packaging/server/postinst
  ${CMAKE_SOURCE_DIR}/packaging/server/prerm
  ${CMAKE_SOURCE_DIR}/packaging/server/postrm
  ${CMAKE_SOURCE_DIR}/packaging/server/conffiles)

install(FILES ${CMAKE_SOURCE_DIR}/packaging/copyright
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/rongdian COMPONENT app EXCLUDE_FROM_ALL)
install(FILES ${CMAKE_SOURCE_DIR}/packaging/copyright
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/rongdian-server COMPONENT service EXCLUDE_FROM_ALL)

# The QML module packages, found from the app's QML when CPack runs.
if(RD_BUILD_APP)
  find_package(Qt6 6.4 REQUIRED COMPONENTS Qml QmlImportScanner)
  get_target_property(CPACK_RD_QMLIMPORTSCANNER Qt6::qmlimportscanner IMPORTED_LOCATION)
  set(CPACK_RD_QML_DIR ${QT6_INSTALL_PREFIX}/${QT6_INSTALL_QML})
  set(CPACK_RD_APP_DIR ${CMAKE_SOURCE_DIR}/app)
  set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/PackageQmlDepends.cmake)
endif()

include(CPack)
