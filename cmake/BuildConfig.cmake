# Values the app is built with (the app reads no configuration
# file) and the server's matching local defaults. Override with -D at configure
# time for a real deployment.
set(RD_SERVER_URL "http://127.0.0.1:8080" CACHE STRING "Base URL of the local rongdian-server")

set(RD_BACKEND_ENDPOINT "${RD_SERVER_URL}/api" CACHE STRING "Backend endpoint (the app appends ?cmd=NAME)")

set(RD_FACEPP_KEY "rongdian-dev-key" CACHE STRING "Face detection API key")
set(RD_FACEPP_SECRET "rongdian-dev-secret" CACHE STRING "Face detection API secret")
set(RD_FACEPP_REGION0_URL "${RD_SERVER_URL}/v2/" CACHE STRING "Detection base URL, region 0")
set(RD_FACEPP_REGION1_URL "${RD_SERVER_URL}/v2/" CACHE STRING "Detection base URL, region 1")

set(RD_STORAGE_ACCESS_KEY "rongdian-dev-ak" CACHE STRING "Photo storage access key")
set(RD_STORAGE_SECRET_KEY "rongdian-dev-sk" CACHE STRING "Photo storage secret key")
set(RD_STORAGE_BUCKET "rongdian" CACHE STRING "Photo storage bucket")
set(RD_STORAGE_UPLOAD_URL "${RD_SERVER_URL}/upload" CACHE STRING "Primary photo upload address")
set(RD_STORAGE_BACKUP_UPLOAD_URL "${RD_SERVER_URL}/upload-backup" CACHE STRING "Backup photo upload address")
set(RD_STORAGE_DOWNLOAD_PREFIX "${RD_SERVER_URL}/files/" CACHE STRING "Public download prefix of stored photos")

set(RD_PUSH_URL "ws://127.0.0.1:8080/push" CACHE STRING "Push gateway WebSocket address")
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
