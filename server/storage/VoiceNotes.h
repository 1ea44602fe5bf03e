// Voice notes sent with feedback: one file per note under DATA/feedback,
// written atomically under a fresh random name; plus the check that a file
// really is a recording.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "storage/PhotoFiles.h"
#include "store/Store.h"

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

// A note is first written as pending ("<key>.pending"), and takes its key
// only once its feedback row is committed (commit), so that a crash leaves
// neither a file without a row nor a row without its file for long: sweep
// finishes what a crash cut off.
class VoiceNotes {
 public:
  explicit VoiceNotes(std::filesystem::path dir);

  // A fresh random key ("<32 hex digits>.<ext>").
  static std::string new_key(const AudioInfo& info);
  // Writes the note, synced, as pending under a new key ("<32 hex
  // digits>.<ext>") and returns the key; nullopt (and `error`) when it could
  // not be written; nothing is left behind then.
  std::optional<std::string> put(std::string_view bytes, const AudioInfo& info,
                                 std::string* error = nullptr);
  // The pending note takes its key (its row is committed); false when it
  // could not be renamed.
  bool commit(const std::string& key);
  // Drops a pending note (its row was not written).
  void discard(const std::string& key);
  std::optional<std::string> read(const std::string& key) const { return files_.read(key); }
  bool remove(const std::string& key) { return files_.remove(key); }
  const std::filesystem::path& dir() const { return files_.dir(); }

  // After a crash: a pending note whose key `has_row` knows is committed;
  // one without a row, a note without a row, and a half-written temporary
  // file are removed once older than `grace` (another server on the same
  // folder may be writing them just now). Returns how many files it changed.
  int sweep(const std::function<bool(const std::string& key)>& has_row, std::chrono::seconds grace);

  // Gives each note of the folder to the feedback row that names it, where
  // the rows hold the notes (the files stay); returns how many moved.
  int move_into(store::Store& store);

 private:
  PhotoFiles files_;  // the same write-once file store, in a folder of its own
};

}  // namespace rd::storage
