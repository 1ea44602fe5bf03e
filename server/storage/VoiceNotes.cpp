#include "storage/VoiceNotes.h"

#include <fcntl.h>
#include <sodium.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

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

// MPEG audio (MP3): the length of the frame whose header starts `b`, or 0
// when it is no frame header (no sync, a reserved version, layer, bitrate or
// sample rate, or the "free" bitrate whose frames have no length to check).
std::size_t mpeg_frame_length(std::string_view b) {
  if (b.size() < 4 || at(b, 0) != 0xFF || (at(b, 1) & 0xE0) != 0xE0) return 0;
  const int version = (at(b, 1) >> 3) & 3;  // 0: 2.5, 2: 2, 3: 1
  const int layer = (at(b, 1) >> 1) & 3;    // 1: III, 2: II, 3: I
  const int rate_index = at(b, 2) >> 4, sample_index = (at(b, 2) >> 2) & 3;
  if (version == 1 || layer == 0 || rate_index == 0 || rate_index == 15 || sample_index == 3)
    return 0;
  static constexpr int kbps[5][14] = {
      {32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448},  // 1, I
      {32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384},     // 1, II
      {32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320},      // 1, III
      {32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256},     // 2 and 2.5, I
      {8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160},          // 2 and 2.5, II, III
  };
  static constexpr int hz[3] = {44100, 48000, 32000};
  const bool v1 = version == 3;
  const int row = v1 ? 3 - layer : (layer == 3 ? 3 : 4);
  const long bitrate = kbps[row][rate_index - 1] * 1000L;
  const long sample_rate = hz[sample_index] >> (v1 ? 0 : version == 2 ? 1 : 2);
  const int padding = (at(b, 2) >> 1) & 1;
  if (layer == 3) return static_cast<std::size_t>((12 * bitrate / sample_rate + padding) * 4);
  const long per = (layer == 1 && !v1) ? 72 : 144;
  return static_cast<std::size_t>(per * bitrate / sample_rate + padding);
}

// MP3: an optional ID3v2 tag, then MPEG audio frames one after the other to
// the end, where an ID3v1 tag may close the file.
bool mpeg_frames_whole(std::string_view b) {
  std::size_t pos = 0;
  if (starts_with(b, "ID3")) {
    if (b.size() < 10 || at(b, 3) == 0xFF || at(b, 4) == 0xFF) return false;
    std::size_t size = 0;
    for (int i = 6; i < 10; ++i) {
      if (at(b, i) & 0x80) return false;  // the size is "synchsafe": 7 bits a byte
      size = (size << 7) | at(b, i);
    }
    pos = 10 + size + ((at(b, 5) & 0x10) ? 10 : 0);  // with a footer
    if (pos > b.size()) return false;
  }
  std::size_t end = b.size();
  if (end - pos >= 128 && b.substr(end - 128, 3) == "TAG") end -= 128;
  int frames = 0;
  while (pos < end) {
    const std::size_t n = mpeg_frame_length(b.substr(pos, end - pos));
    if (n < 4 || n > end - pos) return false;
    pos += n;
    ++frames;
  }
  return frames > 0;
}

// AAC in ADTS frames, one after the other to the end.
bool adts_frames_whole(std::string_view b) {
  std::size_t pos = 0;
  int frames = 0;
  while (pos < b.size()) {
    const std::string_view f = b.substr(pos);
    // 12-bit sync, layer 0, a known sampling frequency; a frame covering its header.
    if (f.size() < 7 || at(f, 0) != 0xFF || (at(f, 1) & 0xF6) != 0xF0) return false;
    if (((at(f, 2) >> 2) & 0xF) > 12) return false;
    const std::size_t header = (at(f, 1) & 1) ? 7 : 9;
    const std::size_t len = ((at(f, 3) & 3u) << 11) | (at(f, 4) << 3) | (at(f, 5) >> 5);
    if (len < header || len > f.size()) return false;
    pos += len;
    ++frames;
  }
  return frames > 0;
}

// AMR and AMR-WB storage format: the magic line, then frames whose sizes
// their one-byte headers give, to the very end.
bool amr_frames_whole(std::string_view b) {
  static constexpr std::string_view kNarrow = "#!AMR\n", kWide = "#!AMR-WB\n";
  // Bytes per frame including its header, by frame type; 0: not allowed.
  static constexpr unsigned char narrow[16] = {13, 14, 16, 18, 20, 21, 27, 32,
                                               6,  0,  0,  0,  0,  0,  0,  1};
  static constexpr unsigned char wide[16] = {18, 24, 33, 37, 41, 47, 51, 59,
                                             61, 6,  0,  0,  0,  0,  1,  1};
  const bool is_wide = starts_with(b, kWide);
  if (!is_wide && !starts_with(b, kNarrow)) return false;
  const unsigned char* sizes = is_wide ? wide : narrow;
  std::size_t pos = is_wide ? kWide.size() : kNarrow.size();
  int frames = 0;
  while (pos < b.size()) {
    const unsigned char h = at(b, pos);
    const std::size_t n = sizes[(h >> 3) & 0xF];
    if ((h & 0x83) != 0 || n == 0 || n > b.size() - pos) return false;  // padding bits are 0
    pos += n;
    ++frames;
  }
  return frames > 0;
}

// FLAC: the stream info block first, the metadata blocks one after the other
// up to the one marked last, then audio that starts with a frame header.
bool flac_whole(std::string_view b) {
  std::size_t pos = 4;
  bool first = true, last = false;
  while (!last) {
    if (b.size() - pos < 4) return false;
    const unsigned char h = at(b, pos);
    last = (h & 0x80) != 0;
    const int type = h & 0x7F;
    const std::size_t len =
        (std::size_t{at(b, pos + 1)} << 16) | (at(b, pos + 2) << 8) | at(b, pos + 3);
    if (type == 127 || len > b.size() - pos - 4) return false;
    if (first) {
      // STREAMINFO: 34 bytes; a block size of at least 16 and a sample rate.
      if (type != 0 || len != 34) return false;
      const std::string_view info = b.substr(pos + 4, 34);
      const unsigned min_block = (at(info, 0) << 8) | at(info, 1);
      const unsigned rate =
          (unsigned{at(info, 10)} << 12) | (at(info, 11) << 4) | (at(info, 12) >> 4);
      if (min_block < 16 || rate == 0) return false;
    } else if (type == 0) {
      return false;  // only one stream info
    }
    first = false;
    pos += 4 + len;
  }
  return b.size() - pos >= 2 && at(b, pos) == 0xFF && (at(b, pos + 1) & 0xFE) == 0xF8;
}

// EBML variable-length integers: the element id keeps its length marker,
// the size does not (all ones: "unknown", to the end of its parent).
struct Ebml {
  std::uint64_t id = 0;
  std::uint64_t size = 0;
  bool unknown_size = false;
  std::size_t head = 0;  // bytes of id and size
};

std::optional<Ebml> ebml_element(std::string_view b, std::size_t pos) {
  auto vint = [&](std::size_t& p, bool keep_marker,
                  bool* all_ones) -> std::optional<std::uint64_t> {
    if (p >= b.size()) return std::nullopt;
    const unsigned char first = at(b, p);
    int len = 1;
    while (len <= 8 && !(first & (0x80 >> (len - 1)))) ++len;
    if (len > 8 || b.size() - p < static_cast<std::size_t>(len)) return std::nullopt;
    std::uint64_t v = keep_marker ? first : (first & (0xFF >> len));
    bool ones = v == (0xFFu >> len);
    for (int i = 1; i < len; ++i) {
      v = (v << 8) | at(b, p + i);
      ones = ones && at(b, p + i) == 0xFF;
    }
    if (all_ones) *all_ones = ones;
    p += len;
    return v;
  };
  Ebml e;
  std::size_t p = pos;
  auto id = vint(p, true, nullptr);
  bool ones = false;
  auto size = id ? vint(p, false, &ones) : std::nullopt;
  if (!size) return std::nullopt;
  e.id = *id;
  e.size = *size;
  e.unknown_size = ones;
  e.head = p - pos;
  return e;
}

// WebM/Matroska: the EBML header, whole and naming the document type, then
// one segment to the end of the file whose first elements are the segment's
// own (meta seek, info, tracks, ...), with the tracks before the first cluster.
bool matroska_whole(std::string_view b) {
  auto header = ebml_element(b, 0);
  if (!header || header->id != 0x1A45DFA3 || header->unknown_size ||
      header->size > b.size() - header->head)
    return false;
  bool doc_type = false;
  const std::size_t header_end = header->head + header->size;
  for (std::size_t p = header->head; p < header_end;) {
    auto e = ebml_element(b.substr(0, header_end), p);
    if (!e || e->unknown_size || e->size > header_end - p - e->head) return false;
    if (e->id == 0x4282) {
      const std::string_view t = b.substr(p + e->head, e->size);
      doc_type = t == "webm" || t == "matroska";
    }
    p += e->head + e->size;
  }
  auto segment = ebml_element(b, header_end);
  if (!doc_type || !segment || segment->id != 0x18538067) return false;
  const std::size_t body = header_end + segment->head;
  if (!segment->unknown_size && segment->size != b.size() - body) return false;
  static constexpr std::uint64_t kSegmentIds[] = {0x114D9B74, 0x1549A966, 0x1654AE6B, 0x1F43B675,
                                                  0x1C53BB6B, 0x1043A770, 0x1254C367, 0x1941A469,
                                                  0xEC,       0xBF};
  bool tracks = false;
  for (std::size_t p = body; p < b.size();) {
    auto e = ebml_element(b, p);
    if (!e ||
        std::find(std::begin(kSegmentIds), std::end(kSegmentIds), e->id) == std::end(kSegmentIds))
      return false;
    if (e->id == 0x1654AE6B) tracks = true;
    if (e->id == 0x1F43B675) return tracks;  // the clusters hold the audio
    if (e->unknown_size || e->size > b.size() - p - e->head) return false;
    p += e->head + e->size;
  }
  return tracks;
}

}  // namespace

std::optional<AudioInfo> probe_audio(std::string_view b) {
  if (auto iso = probe_iso_media(b)) return iso;
  if (b.size() >= 12 && starts_with(b, "RIFF") && b.substr(8, 4) == "WAVE")
    return wave_chunks_whole(b) ? std::optional(AudioInfo{"audio/wav", "wav"}) : std::nullopt;
  if (starts_with(b, "OggS"))
    return ogg_pages_whole(b) ? std::optional(AudioInfo{"audio/ogg", "ogg"}) : std::nullopt;
  if (starts_with(b, "fLaC"))
    return flac_whole(b) ? std::optional(AudioInfo{"audio/flac", "flac"}) : std::nullopt;
  if (starts_with(b, "#!AMR"))
    return amr_frames_whole(b) ? std::optional(AudioInfo{"audio/amr", "amr"}) : std::nullopt;
  if (starts_with(b, "\x1A\x45\xDF\xA3"))  // EBML: WebM or Matroska
    return matroska_whole(b) ? std::optional(AudioInfo{"audio/webm", "webm"}) : std::nullopt;
  if (adts_frames_whole(b)) return AudioInfo{"audio/aac", "aac"};
  if (mpeg_frames_whole(b)) return AudioInfo{"audio/mpeg", "mp3"};
  return std::nullopt;
}

VoiceNotes::VoiceNotes(std::filesystem::path dir) : files_(std::move(dir), std::string()) {}

namespace {

constexpr std::string_view kPending = ".pending";

bool ends_with(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

// A stored note's name: 32 hex digits, a dot and a short extension.
bool note_name(std::string_view name) {
  if (name.size() < 34 || name.size() > 40 || name[32] != '.') return false;
  for (std::size_t i = 0; i < 32; ++i)
    if (!std::isxdigit(static_cast<unsigned char>(name[i]))) return false;
  for (char c : name.substr(33))
    if (!std::isalnum(static_cast<unsigned char>(c))) return false;
  return true;
}

void sync_folder(const std::filesystem::path& dir) {
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

}  // namespace

std::string VoiceNotes::new_key(const AudioInfo& info) {
  unsigned char raw[16];
  randombytes_buf(raw, sizeof raw);
  char hex[2 * sizeof raw + 1];
  sodium_bin2hex(hex, sizeof hex, raw, sizeof raw);
  return std::string(hex) + "." + info.extension;
}

int VoiceNotes::move_into(store::Store& store) {
  int moved = 0;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(dir(), ec)) {
    const std::string key = e.path().filename().string();
    if (!e.is_regular_file(ec) || !valid_key(key)) continue;  // pending or half-written
    auto bytes = files_.read(key);
    if (bytes && store.set_feedback_voice(key, *bytes)) ++moved;
  }
  return moved;
}

std::optional<std::string> VoiceNotes::put(std::string_view bytes, const AudioInfo& info,
                                           std::string* error) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    const std::string key = new_key(info);
    if (std::filesystem::exists(dir() / key)) continue;
    switch (files_.put(key + std::string(kPending), bytes, error)) {
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

bool VoiceNotes::commit(const std::string& key) {
  if (!valid_key(key)) return false;
  const auto pending = dir() / (key + std::string(kPending));
  if (::rename(pending.c_str(), (dir() / key).c_str()) != 0)
    return errno == ENOENT && std::filesystem::exists(dir() / key);  // a sweep was first
  sync_folder(dir());
  return true;
}

void VoiceNotes::discard(const std::string& key) {
  if (valid_key(key)) files_.remove(key + std::string(kPending));
}

int VoiceNotes::sweep(const std::function<bool(const std::string&)>& has_row,
                      std::chrono::seconds grace) {
  namespace fs = std::filesystem;
  std::error_code ec;
  const auto now = fs::file_time_type::clock::now();
  std::vector<fs::path> files;
  for (const auto& e : fs::directory_iterator(dir(), ec))
    if (e.is_regular_file(ec)) files.push_back(e.path());
  int changed = 0;
  for (const auto& path : files) {
    const std::string name = path.filename().string();
    const auto written = fs::last_write_time(path, ec);
    const bool old = !ec && now - written >= grace;
    if (ends_with(name, kPending)) {
      const std::string key = name.substr(0, name.size() - kPending.size());
      if (!note_name(key)) continue;
      if (has_row(key)) {
        changed += commit(key) ? 1 : 0;
      } else if (old && fs::remove(path, ec)) {
        ++changed;
      }
    } else if (old && (name.rfind(".tmp-", 0) == 0 || (note_name(name) && !has_row(name)))) {
      if (fs::remove(path, ec)) ++changed;
    }
  }
  if (changed) sync_folder(dir());
  return changed;
}

}  // namespace rd::storage
