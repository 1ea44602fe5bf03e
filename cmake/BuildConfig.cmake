# Values the app is built with (the app reads no configuration
# file) and the server's matching local defaults. Override with -D at configure
# time for a real deployment.
set(RD_SERVER_URL "http://127.0.0.1:8080" CACHE STRING "Base URL of the local rongdian-server")

set(RD_FACEPP_KEY "rongdian-dev-key" CACHE STRING "Face detection API key")
set(RD_FACEPP_SECRET "rongdian-dev-secret" CACHE STRING "Face detection API secret")

set(RD_STORAGE_ACCESS_KEY "rongdian-dev-ak" CACHE STRING "Photo storage access key")
set(RD_STORAGE_SECRET_KEY "rongdian-dev-sk" CACHE STRING "Photo storage secret key")
set(RD_STORAGE_BUCKET "rongdian" CACHE STRING "Photo storage bucket")

# Addresses derived from RD_SERVER_URL. Each can be set on its own (-D); left
# empty it follows RD_SERVER_URL on every configure, so changing the server's
# address moves them all. (A plain variable of the same name shadows the empty
# cache entry for the rest of the configure.)
string(REGEX REPLACE "^http" "ws" rd_push_base "${RD_SERVER_URL}")
foreach(derived
    "RD_BACKEND_ENDPOINT|${RD_SERVER_URL}/api|Backend endpoint (the app appends ?cmd=NAME)"
    "RD_FACEPP_REGION0_URL|${RD_SERVER_URL}/v2/|Detection base URL, region 0"
    "RD_FACEPP_REGION1_URL|${RD_SERVER_URL}/v2/|Detection base URL, region 1"
    "RD_STORAGE_UPLOAD_URL|${RD_SERVER_URL}/upload|Primary photo upload address"
    "RD_STORAGE_BACKUP_UPLOAD_URL|${RD_SERVER_URL}/upload-backup|Backup photo upload address"
    "RD_STORAGE_DOWNLOAD_PREFIX|${RD_SERVER_URL}/files/|Public download prefix of stored photos"
    "RD_PUSH_URL|${rd_push_base}/push|Push gateway WebSocket address")
  string(REPLACE "|" ";" derived "${derived}")
  list(GET derived 0 name)
  list(GET derived 1 value)
  list(GET derived 2 doc)
  set(${name} "" CACHE STRING "${doc} (empty: derived from RD_SERVER_URL)")
  if("${${name}}" STREQUAL "")
    set(${name} "${value}")
  endif()
endforeach()

set(RD_REGISTER_DEVICE_TOKEN "<5f1c3a9e 7b2d4c60 91e8a7f3 0c4b6d2e 8a9f1b3c 4d5e6f70 1a2b3c4d 5e6f7a8b>"
  CACHE STRING "The fixed device token the app signs up with (the server never binds it)")
# Addresses starting with "/" are pages of the server the app talks to (the
# server answers them itself); give full addresses for a real store and mail.
set(RD_CONTACT_EMAIL "/app#contact" CACHE STRING "Contact address in the settings' contact text")
set(RD_STORE_ID "rongdian" CACHE STRING "The app's id in the app store")
set(RD_STORE_REVIEW_URL "/app/review?id={id}" CACHE STRING "Review page of the app ({id}: the store id)")
set(RD_SHARE_STORE_LINK "/app" CACHE STRING "Store link in share texts")

# Outside kits: analytics, and the social kits used for sharing.
set(RD_ANALYTICS_KEY "rongdian-dev-analytics" CACHE STRING "Usage analytics and feedback key")
set(RD_WEIBO_APP_KEY "1000000000" CACHE STRING "Weibo app key")
set(RD_QQ_APP_ID "100000000" CACHE STRING "QQ app id")
set(RD_WECHAT_APP_ID "wx0000000000000000" CACHE STRING "WeChat app id")

configure_file(${CMAKE_CURRENT_LIST_DIR}/BuildConfig.h.in ${CMAKE_BINARY_DIR}/generated/BuildConfig.h @ONLY)
include_directories(${CMAKE_BINARY_DIR}/generated)
