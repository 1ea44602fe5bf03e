// Voice notes sent with feedback: one file per note under DATA/feedback,
// written atomically under a fresh random name; plus the check that a file
// really is a recording.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "storage/PhotoFiles.h"

namespace rd::storage {

inline constexpr std::size_t kMaxVoiceBytes = 4 * 1024 * 1024;

struct AudioInfo {
  std::string mime;       // e.g. "audio/mp4"
  std::string extension;  // e.g. "m4a", the stored file's suffix
};

// Recognises the containers a phone or the app's recorder writes (MP4/M4A,
// 3GP, Ogg, WebM/Matroska, WAV, FLAC, AMR, MP3, AAC/ADTS) from their first
// bytes; nullopt for anything else. MP4 files whose major brand names a
// film or picture format (qt, M4V, avc1, heic, ...) are not taken. MP4, WAV
// and Ogg files are walked to their end: their boxes, chunks or pages must
// follow each other exactly (an MP4 with its movie box, a WAV with its format
// and data), so a header glued to anything else is refused.
std::optional<AudioInfo> probe_audio(std::string_view bytes);

class VoiceNotes {
 public:
  explicit VoiceNotes(std::filesystem::path dir);

  // Stores the note under a new key ("<32 hex digits>.<ext>") and returns the
  // key once the file and its folder entry are on disk; nullopt (and `error`)
  // when it could not be written; nothing is left behind then.
  std::optional<std::string> put(std::string_view bytes, const AudioInfo& info,
                                 std::string* error = nullptr);
  std::optional<std::string> read(const std::string& key) const { return files_.read(key); }
  bool remove(const std::string& key) { return files_.remove(key); }
  const std::filesystem::path& dir() const { return files_.dir(); }

 private:
  PhotoFiles files_;  // the same write-once file store, in a folder of its own
};

}  // namespace rd::storage
