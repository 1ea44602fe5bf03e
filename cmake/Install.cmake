# `cmake --install build --prefix P` puts in place:
#   P/bin/rongdian, P/bin/rongdian-server, P/bin/rongdian-score
#     (each target's own CMakeLists.txt has its install rule). The app carries
#     its QML screens and pictures compiled in as Qt resources (qrc:/qml,
#     qrc:/pictures), so none of them is installed as a file; the QML modules
#     it imports come from the system's Qt 6 packages.
#   P/share/rongdian/models: the face model files the detection service loads;
#     an installed rongdian-server looks there by default (see --help, --models).
#   P/share/applications/rongdian.desktop and the icon it names,
#     P/share/icons/hicolor/256x256/apps/rongdian.png.

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
  install(FILES ${CMAKE_SOURCE_DIR}/app/ui/rongdian.desktop
    DESTINATION ${CMAKE_INSTALL_DATADIR}/applications COMPONENT app)
  install(FILES ${CMAKE_SOURCE_DIR}/app/ui/pictures/icon/rongdian.png
    DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/256x256/apps COMPONENT app)
endif()
