// Sends the settings screen's feedback to the server: one multipart POST to
// Endpoints::feedbackUrl() with "text", the optional voice note as "voice",
// and, when someone is signed in, "user_id"; the push "device_token" when
// the device has one. Screens go through FeedbackViewController; the client
// has no UI of its own.
#pragma once

#include <QString>
#include <functional>

class FeedbackClient {
 public:
  // What the server takes at most (it checks again).
  static constexpr int kMaxTextLength = 1000;        // UTF-16 units
  static constexpr qint64 kMaxVoiceBytes = 4 << 20;  // 4 MiB

  struct Result {
    bool ok = false;
    qint64 id = 0;    // the server's number for the message
    int status = 0;   // HTTP status; 0 when the server never answered
    QString error;    // the server's code ("empty_text", "not_audio", ...), "network",
                      // or "voice_unreadable" / "voice_too_large" found before sending
    QString message;  // a text for the user; empty on success
  };
  using Done = std::function<void(const Result&)>;

  // `voicePath` is a recorded file, or empty for text alone. `done` runs once,
  // on the main thread. Call from the main thread.
  static void send(const QString& text, const QString& voicePath, Done done);

  // The content type sent with a voice file, from its suffix.
  static QString voiceContentType(const QString& path);
};
