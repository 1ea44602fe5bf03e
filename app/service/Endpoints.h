// Where the app's network clients go: the backend endpoint, the two photo
// upload hosts and the public download prefix of stored photos.
//
// Defaults are the build-time values (BuildConfig.h). The app's --server
// option, rongdian-score and the tests point everything at another server with
// setServerUrl(); the single setters exist for finer control.
#pragma once

#include <QString>

class Endpoints {
 public:
  // ".../api"; commands append "?cmd=NAME".
  static QString backendEndpoint();
  // Primary and backup upload address of the photo storage.
  static QString uploadUrl();
  static QString backupUploadUrl();
  // Public download prefix of stored photos, ending in "/".
  static QString downloadPrefix();
  // Where the settings screen's feedback goes (".../feedback", beside ".../api").
  static QString feedbackUrl();
  // An address of the build configuration: one that starts with "/" is a page
  // of the backend's server (BASE + it), anything else stands as it is.
  static QString onServer(const QString& address);

  // All of them from one server base URL such as "http://127.0.0.1:8080":
  // BASE/api, BASE/upload, BASE/upload-backup, BASE/files/, BASE/feedback.
  static void setServerUrl(const QString& base);
  static void setBackendEndpoint(const QString& url);
  // Back to the build-time values.
  static void reset();
};
