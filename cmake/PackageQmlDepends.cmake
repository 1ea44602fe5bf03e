# Run by CPack when it makes the packages: adds to the rongdian package's
# dependencies the Debian packages of the QML modules the app imports, and of
# the modules those import. qmlimportscanner resolves the imports of the app's
# QML files against Qt's QML folder; dpkg names the package of each module's
# qmldir. A module the app's QML imports that is not on this machine stops
# the packaging. (The library dependencies come from dpkg-shlibdeps.)

cmake_policy(VERSION 3.25)  # CPack runs this with the old policies

execute_process(
  COMMAND ${CPACK_RD_QMLIMPORTSCANNER} -rootPath ${CPACK_RD_APP_DIR} -importPath ${CPACK_RD_QML_DIR}
  OUTPUT_VARIABLE scan RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "qmlimportscanner failed (${status})")
endif()

# The app's own import lines: each module must be found.
file(GLOB_RECURSE qml_files ${CPACK_RD_APP_DIR}/*.qml)
set(direct)
foreach(f ${qml_files})
  file(STRINGS ${f} lines REGEX "^import [A-Za-z]")
  foreach(line ${lines})
    string(REGEX REPLACE "^import ([A-Za-z0-9_.]+).*" "\\1" module "${line}")
    list(APPEND direct ${module})
  endforeach()
endforeach()

set(qmldirs)
string(JSON count LENGTH "${scan}")
math(EXPR last "${count} - 1")
foreach(i RANGE ${last})
  string(JSON type ERROR_VARIABLE err GET "${scan}" ${i} type)
  string(JSON name ERROR_VARIABLE err GET "${scan}" ${i} name)
  string(JSON path ERROR_VARIABLE no_path GET "${scan}" ${i} path)
  if(NOT type STREQUAL "module")
    continue()
  endif()
  if(no_path OR NOT EXISTS "${path}/qmldir")
    # The app's own module is compiled in; others unresolved here are
    # optional imports of Qt's modules (styles for other systems).
    if(name IN_LIST direct AND NOT name STREQUAL "Rongdian")
      message(FATAL_ERROR "the app imports the QML module ${name}, not found in ${CPACK_RD_QML_DIR}")
    endif()
    continue()
  endif()
  list(APPEND qmldirs "${path}/qmldir")
endforeach()

execute_process(COMMAND dpkg-query --search ${qmldirs}
  OUTPUT_VARIABLE owners RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "dpkg-query --search: a QML module of the app belongs to no Debian package")
endif()
string(REGEX MATCHALL "[^\n]+" owners "${owners}")
set(packages)
foreach(line ${owners})
  string(REGEX REPLACE ":.*" "" package "${line}")
  list(APPEND packages ${package})
endforeach()
list(REMOVE_DUPLICATES packages)
list(SORT packages)
list(JOIN packages ", " CPACK_DEBIAN_APP_PACKAGE_DEPENDS)
