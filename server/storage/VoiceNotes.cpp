#include "storage/VoiceNotes.h"

#include <sodium.h>

#include <cstring>

namespace rd::storage {

namespace {

bool starts_with(std::string_view b, std::string_view prefix) {
  return b.size() >= prefix.size() && b.substr(0, prefix.size()) == prefix;
}

unsigned char at(std::string_view b, std::size_t i) { return static_cast<unsigned char>(b[i]); }

std::uint32_t be32(std::string_view b, std::size_t i) {
  return (std::uint32_t{at(b, i)} << 24) | (at(b, i + 1) << 16) | (at(b, i + 2) << 8) |
         at(b, i + 3);
}
std::uint32_t le32(std::string_view b, std::size_t i) {
  return (std::uint32_t{at(b, i + 3)} << 24) | (at(b, i + 2) << 16) | (at(b, i + 1) << 8) |
         at(b, i);
}

// The top-level boxes of an ISO media file follow each other to its very end
// and include the movie box (without it nothing plays).
bool iso_boxes_whole(std::string_view b) {
  bool movie = false;
  std::size_t at_box = 0;
  while (at_box < b.size()) {
    if (b.size() - at_box < 8) return false;
    std::uint64_t size = be32(b, at_box);
    std::size_t head = 8;
    if (size == 1) {  // a 64-bit size follows the type
      if (b.size() - at_box < 16) return false;
      size = (std::uint64_t{be32(b, at_box + 8)} << 32) | be32(b, at_box + 12);
      head = 16;
    } else if (size == 0) {  // to the end of the file
      size = b.size() - at_box;
    }
    if (size < head || size > b.size() - at_box) return false;
    if (b.substr(at_box + 4, 4) == "moov") movie = true;
    at_box += size;
  }
  return movie;
}

// RIFF/WAVE: the RIFF size covers the file, the chunks follow each other to
// its end (each padded to an even length), with a format and a data chunk.
bool wave_chunks_whole(std::string_view b) {
  if (le32(b, 4) + std::uint64_t{8} != b.size()) return false;
  bool format = false, data = false;
  std::size_t at_chunk = 12;
  while (at_chunk < b.size()) {
    if (b.size() - at_chunk < 8) return false;
    const std::uint64_t size = le32(b, at_chunk + 4) + std::uint64_t{8};
    const std::uint64_t padded = size + (size & 1);
    if (size > b.size() - at_chunk) return false;
    const std::string_view id = b.substr(at_chunk, 4);
    format = format || id == "fmt ";
    data = data || id == "data";
    at_chunk += std::min<std::uint64_t>(padded, b.size() - at_chunk);
  }
  return format && data;
}

// Ogg: pages, each "OggS" with its segment table, one after the other to the end.
bool ogg_pages_whole(std::string_view b) {
  std::size_t at_page = 0;
  while (at_page < b.size()) {
    if (b.size() - at_page < 27 || b.substr(at_page, 4) != "OggS") return false;
    const std::size_t segments = at(b, at_page + 26);
    if (b.size() - at_page < 27 + segments) return false;
    std::size_t body = 0;
    for (std::size_t i = 0; i < segments; ++i) body += at(b, at_page + 27 + i);
    const std::size_t page = 27 + segments + body;
    if (page > b.size() - at_page) return false;
    at_page += page;
  }
  return true;
}

// ISO base media (MP4, M4A, 3GP): a first box "ftyp" whose major brand says what it holds.
std::optional<AudioInfo> probe_iso_media(std::string_view b) {
  if (b.size() < 12 || b.substr(4, 4) != "ftyp" || !iso_boxes_whole(b)) return std::nullopt;
  std::uint32_t box =
      (std::uint32_t{at(b, 0)} << 24) | (at(b, 1) << 16) | (at(b, 2) << 8) | at(b, 3);
  if (box < 16 || box > 4096) return std::nullopt;
  std::string_view brand = b.substr(8, 4);
  if (brand.substr(0, 3) == "3gp" || brand.substr(0, 3) == "3g2")
    return AudioInfo{"audio/3gpp", "3gp"};
  // Brands of audio-only files and of the generic profiles recorders use for audio.
  static constexpr std::string_view audio_brands[] = {"M4A ", "M4B ", "mp42", "isom", "iso2",
                                                      "iso4", "iso5", "iso6", "mp41", "dash"};
  for (auto a : audio_brands)
    if (brand == a) return AudioInfo{"audio/mp4", "m4a"};
  return std::nullopt;  // qt, M4V, avc1, heic, ...: pictures and films
}

bool mp3_frame(std::string_view b) {
  // Frame sync (11 bits), MPEG version not reserved, layer III/II/I, bitrate not "bad".
  if (b.size() < 4 || at(b, 0) != 0xFF || (at(b, 1) & 0xE0) != 0xE0) return false;
  if (((at(b, 1) >> 3) & 3) == 1 || ((at(b, 1) >> 1) & 3) == 0) return false;
  if ((at(b, 2) >> 4) == 15 || ((at(b, 2) >> 2) & 3) == 3) return false;
  return true;
}

bool adts_frame(std::string_view b) {
  // 12-bit sync, layer 0; a frame length that covers at least its header.
  if (b.size() < 7 || at(b, 0) != 0xFF || (at(b, 1) & 0xF6) != 0xF0) return false;
  std::uint32_t len = ((at(b, 3) & 3u) << 11) | (at(b, 4) << 3) | (at(b, 5) >> 5);
  return len >= 7;
}

}  // namespace

std::optional<AudioInfo> probe_audio(std::string_view b) {
  if (auto iso = probe_iso_media(b)) return iso;
  if (b.size() >= 12 && starts_with(b, "RIFF") && b.substr(8, 4) == "WAVE")
    return wave_chunks_whole(b) ? std::optional(AudioInfo{"audio/wav", "wav"}) : std::nullopt;
  if (starts_with(b, "OggS"))
    return ogg_pages_whole(b) ? std::optional(AudioInfo{"audio/ogg", "ogg"}) : std::nullopt;
  if (starts_with(b, "fLaC") && b.size() >= 8) return AudioInfo{"audio/flac", "flac"};
  if (starts_with(b, "#!AMR")) return AudioInfo{"audio/amr", "amr"};
  if (starts_with(b, "\x1A\x45\xDF\xA3") && b.size() >= 16)  // EBML: WebM or Matroska
    return AudioInfo{"audio/webm", "webm"};
  if (starts_with(b, "ID3") && b.size() >= 10) return AudioInfo{"audio/mpeg", "mp3"};
  if (adts_frame(b)) return AudioInfo{"audio/aac", "aac"};
  if (mp3_frame(b)) return AudioInfo{"audio/mpeg", "mp3"};
  return std::nullopt;
}

VoiceNotes::VoiceNotes(std::filesystem::path dir) : files_(std::move(dir), std::string()) {}

std::optional<std::string> VoiceNotes::put(std::string_view bytes, const AudioInfo& info,
                                           std::string* error) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    unsigned char raw[16];
    randombytes_buf(raw, sizeof raw);
    static constexpr char hex[] = "0123456789abcdef";
    std::string key;
    for (unsigned char c : raw) {
      key += hex[c >> 4];
      key += hex[c & 15];
    }
    key += "." + info.extension;
    switch (files_.put(key, bytes, error)) {
      case PhotoFiles::Put::Stored:
      case PhotoFiles::Put::Replaced:  // never: nothing is replaced here
        return key;
      case PhotoFiles::Put::Exists:
        continue;  // 128 random bits met an old name: draw again
      case PhotoFiles::Put::Failed:
        return std::nullopt;
    }
  }
  if (error) *error = "no free name for the voice note";
  return std::nullopt;
}

}  // namespace rd::storage
