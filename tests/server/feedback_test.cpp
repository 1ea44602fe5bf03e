// POST /feedback against a real server on SQLite and PostgreSQL: what is
// accepted lands as one row (and one voice file), what is refused leaves
// neither.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "api_testing.h"
#include "storage/VoiceNotes.h"
#include "storage_testing.h"
#include "store/Store.h"

namespace {

namespace fs = std::filesystem;
using rdtest::FormField;

// A short silent WAV, as a desktop recorder writes it.
std::string wav_note(std::size_t samples = 8000) {
  auto le32 = [](std::uint32_t v) {
    return std::string{static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16),
                       static_cast<char>(v >> 24)};
  };
  auto le16 = [](std::uint16_t v) {
    return std::string{static_cast<char>(v), static_cast<char>(v >> 8)};
  };
  std::string data(samples * 2, '\0');
  std::string fmt = le16(1) + le16(1) + le32(8000) + le32(16000) + le16(2) + le16(16);
  std::string body = "WAVE" + std::string("fmt ") + le32(16) + fmt + "data" +
                     le32(static_cast<std::uint32_t>(data.size())) + data;
  return "RIFF" + le32(static_cast<std::uint32_t>(body.size())) + body;
}

std::string be32(std::uint32_t v) {
  return {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
          static_cast<char>(v)};
}
std::string box(const std::string& type, const std::string& content) {
  return be32(static_cast<std::uint32_t>(8 + content.size())) + type + content;
}

// The boxes of an M4A (AAC in MP4) file, their contents made up.
std::string m4a_note(const std::string& brand = "M4A ") {
  return box("ftyp", brand + std::string(4, '\0') + "isommp42") +
         box("moov", box("mvhd", std::string(100, '\0'))) + box("mdat", std::string(2000, '!'));
}

// Ogg pages of `n` segments of 255 bytes each.
std::string ogg_note(int pages = 3) {
  std::string out;
  for (int p = 0; p < pages; ++p)
    out += "OggS" + std::string(22, '\0') + '\x02' + std::string(2, '\xFF') + std::string(510, 'o');
  return out;
}

// MP3: an ID3v2 tag, then `frames` MPEG-1 layer III frames (128 kbit/s,
// 44.1 kHz: 417 bytes each).
std::string mp3_note(int frames = 3) {
  std::string out = std::string("ID3\x04\0\0\0\0\0\x0A", 10) + std::string(10, '\0');
  for (int i = 0; i < frames; ++i)
    out += std::string("\xFF\xFB\x90\x00", 4) + std::string(413, 'm');
  return out;
}

// AAC in ADTS: frames of 100 bytes, 44.1 kHz, no CRC.
std::string adts_note(int frames = 3) {
  std::string out;
  const unsigned len = 100;
  for (int i = 0; i < frames; ++i)
    out += std::string{'\xFF',
                       '\xF1',
                       '\x50',
                       static_cast<char>(0x80 | (len >> 11)),
                       static_cast<char>((len >> 3) & 0xFF),
                       static_cast<char>((len & 7) << 5 | 0x1F),
                       '\xFC'} +
           std::string(len - 7, 'a');
  return out;
}

// AMR: the magic line and frames of the 12.2 kbit/s mode (32 bytes each).
std::string amr_note(int frames = 5) {
  std::string out = "#!AMR\n";
  for (int i = 0; i < frames; ++i) out += '\x3C' + std::string(31, 'r');
  return out;
}

// FLAC: the stream info (44.1 kHz, blocks of 4096), then a frame's start.
std::string flac_note() {
  std::string info(34, '\0');
  info[0] = '\x10';  // min block 4096
  info[2] = '\x10';  // max block 4096
  info[10] = '\x0A';
  info[11] = '\xC4';
  info[12] = '\x42';  // 44100 Hz, then channels and bits
  return "fLaC" + std::string("\x80\x00\x00\x22", 4) + info + "\xFF\xF8" + std::string(60, 'f');
}

// WebM as a browser records it: the EBML header, a segment and a cluster of
// unknown size, the tracks before it.
std::string webm_note() {
  const std::string doc = std::string("\x42\x82\x84", 3) + "webm";
  const std::string header =
      std::string("\x1A\x45\xDF\xA3", 4) + static_cast<char>(0x80 | doc.size()) + doc;
  const std::string unknown("\x01\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 8);
  return header + std::string("\x18\x53\x80\x67", 4) + unknown +
         std::string("\x15\x49\xA9\x66\x80", 5) +              // info, empty
         std::string("\x16\x54\xAE\x6B\x83\xEC\x81\x00", 8) +  // tracks
         std::string("\x1F\x43\xB6\x75", 4) + unknown + std::string(200, 'w');
}

std::vector<std::string> files_in(const fs::path& dir) {
  std::vector<std::string> out;
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(dir, ec)) out.push_back(e.path().filename().string());
  return out;
}

class FeedbackRoute : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    server_ = std::make_unique<rdtest::ApiServer>(GetParam(),
                                                  std::vector<std::string>{"--feedback-rate", "0"});
    RD_REQUIRE_SERVER(*server_);
    store_ = rd::store::open_store(server_->database_url(), "", 1);
  }

  rdtest::ApiReply post(const std::vector<FormField>& fields) {
    return rdtest::parse_reply(rdtest::upload(server_->process().port(), fields, "/feedback"));
  }

  fs::path voice_dir() const { return fs::path(server_->process().data_dir()) / "feedback"; }
  bool rows_hold_notes() const { return GetParam() == "postgresql"; }
  // A kept note, where this engine keeps it.
  std::string note(const std::string& key) {
    if (rows_hold_notes()) return store_->feedback_voice(key).value_or("");
    return rdtest::read_file((voice_dir() / key).string());
  }

  std::unique_ptr<rdtest::ApiServer> server_;
  std::shared_ptr<rd::store::Store> store_;
};

TEST_P(FeedbackRoute, TextAloneAndTextWithVoiceAreKept) {
  auto user = server_->register_user("13900000001");
  auto plain = post({{"text", "拍照按钮太小了"}});
  ASSERT_EQ(plain.status, 200) << boost::json::serialize(plain.body);
  EXPECT_EQ(plain.text("status"), "ok");

  std::string wav = wav_note();
  auto spoken = post({{"text", "听听这个"},
                      {"voice", wav, true},
                      {"user_id", user},
                      {"device_token", "<0123abcd 0123abcd>"}});
  ASSERT_EQ(spoken.status, 200) << boost::json::serialize(spoken.body);
  auto m4a = post({{"text", "还有这个"}, {"voice", m4a_note(), true}});
  ASSERT_EQ(m4a.status, 200) << boost::json::serialize(m4a.body);
  EXPECT_GT(spoken.number("id"), plain.number("id"));

  auto rows = store_->list_feedback(0, 10);
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(rows[2].text, "拍照按钮太小了");
  EXPECT_EQ(rows[2].id, plain.number("id"));
  EXPECT_TRUE(rows[2].voice_key.empty());
  EXPECT_TRUE(rows[2].user_id.empty());
  EXPECT_EQ(rows[2].remote_address, "127.0.0.1");
  EXPECT_GT(rows[2].created_ms, 0);

  const auto& r = rows[1];
  EXPECT_EQ(r.text, "听听这个");
  EXPECT_EQ(r.user_id, user);
  EXPECT_EQ(r.device_token, "<0123abcd 0123abcd>");
  EXPECT_EQ(r.voice_mime, "audio/wav");
  EXPECT_EQ(r.voice_bytes, static_cast<std::int64_t>(wav.size()));
  ASSERT_FALSE(r.voice_key.empty());
  EXPECT_EQ(note(r.voice_key), wav);
  EXPECT_EQ(rows[0].voice_mime, "audio/mp4");
  EXPECT_EQ(fs::path(rows[0].voice_key).extension(), ".m4a");
  EXPECT_EQ(note(rows[0].voice_key), m4a_note());
  EXPECT_EQ(files_in(voice_dir()).size(), rows_hold_notes() ? 0u : 2u);

  // The rows survive a restart of the server.
  server_->process().stop();
  server_->restart();
  ASSERT_TRUE(server_->process().ok());
  EXPECT_EQ(post({{"text", "再来一条"}}).status, 200);
  EXPECT_EQ(store_->list_feedback(0, 10).size(), 4u);
}

TEST_P(FeedbackRoute, BadInputIsRefusedClearlyAndLeavesNothingBehind) {
  struct Case {
    const char* what;
    std::vector<FormField> fields;
    int status;
    const char* error;
  };
  std::string longest;
  for (int i = 0; i < 1000; ++i) longest += "好";
  std::vector<Case> cases = {
      {"no text", {{"voice", wav_note(), true}}, 400, "empty_text"},
      {"blank text", {{"text", " \r\n\t "}}, 400, "empty_text"},
      {"too long", {{"text", longest + "!"}}, 400, "text_too_long"},
      {"emoji count twice", {{"text", longest.substr(3) + "😀"}}, 400, "text_too_long"},
      {"not UTF-8", {{"text", "\xC3\x28"}}, 400, "bad_field"},
      {"a photo as voice",
       {{"text", "看"}, {"voice", rdtest::sample_jpeg(), true}},
       415,
       "not_audio"},
      {"text as voice",
       {{"text", "看"}, {"voice", "hello, this is not audio", true}},
       415,
       "not_audio"},
      {"empty voice", {{"text", "看"}, {"voice", "", true}}, 400, "empty_voice"},
      {"voice too big",
       {{"text", "看"}, {"voice", wav_note(rd::storage::kMaxVoiceBytes / 2), true}},
       413,
       "voice_too_large"},
      {"long user id", {{"text", "看"}, {"user_id", std::string(65, 'a')}}, 400, "bad_field"},
  };
  for (const auto& c : cases) {
    auto r = post(c.fields);
    EXPECT_EQ(r.status, c.status) << c.what;
    EXPECT_EQ(r.error(), c.error) << c.what;
    EXPECT_FALSE(r.text("message").empty()) << c.what;
  }

  auto port = server_->process().port();
  auto not_form = rdtest::parse_reply(rdtest::http_request(
      port, "POST", "/feedback", "{\"text\":\"x\"}", {{"Content-Type", "application/json"}}));
  EXPECT_EQ(not_form.status, 400);
  EXPECT_EQ(not_form.error(), "bad_form");
  auto broken = rdtest::http_request(port, "POST", "/feedback", "--b\r\nno end",
                                     {{"Content-Type", "multipart/form-data; boundary=b"}});
  EXPECT_EQ(broken.status, 400);
  // Far beyond any voice note: cut off by the route's body limit.
  auto huge =
      rdtest::upload(port, {{"text", "看"}, {"voice", wav_note(3'000'000), true}}, "/feedback");
  EXPECT_EQ(huge.status, 413);

  EXPECT_TRUE(store_->list_feedback(0, 10).empty());
  EXPECT_TRUE(files_in(voice_dir()).empty());

  // The longest text still goes.
  EXPECT_EQ(post({{"text", longest}}).status, 200);
  EXPECT_EQ(store_->list_feedback(0, 10).size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Engines, FeedbackRoute, ::testing::Values("sqlite", "postgresql"),
                         [](const auto& info) { return info.param; });

TEST(FeedbackLimits, PostsPerAddressAndTheVoiceNotesRoom) {
  rdtest::ApiServer s("sqlite", {"--feedback-rate", "4", "--feedback-quota-mb", "1"});
  RD_REQUIRE_SERVER(s);
  auto post = [&](const std::vector<FormField>& fields) {
    return rdtest::parse_reply(rdtest::upload(s.process().port(), fields, "/feedback"));
  };
  const std::string note = wav_note(200'000);  // 400 KB
  EXPECT_EQ(post({{"text", "一"}, {"voice", note, true}}).status, 200);
  EXPECT_EQ(post({{"text", "二"}, {"voice", note, true}}).status, 200);
  auto full = post({{"text", "三"}, {"voice", note, true}});  // past 1 MiB of notes
  EXPECT_EQ(full.status, 507);
  EXPECT_FALSE(full.text("message").empty());
  EXPECT_EQ(post({{"text", "只有文字"}}).status, 200);
  auto flood = post({{"text", "五"}});
  EXPECT_EQ(flood.status, 429);
  EXPECT_EQ(flood.error(), "rate_limited");
  EXPECT_EQ(files_in(fs::path(s.process().data_dir()) / "feedback").size(), 2u);
}

TEST(VoiceNotes, RecognisesRecordingsAndNothingElse) {
  using rd::storage::probe_audio;
  EXPECT_EQ(probe_audio(wav_note())->mime, "audio/wav");
  EXPECT_EQ(probe_audio(m4a_note())->extension, "m4a");
  EXPECT_EQ(probe_audio(m4a_note("3gp4"))->mime, "audio/3gpp");
  EXPECT_EQ(probe_audio(ogg_note())->mime, "audio/ogg");
  EXPECT_EQ(probe_audio(amr_note())->mime, "audio/amr");
  EXPECT_EQ(probe_audio(mp3_note())->mime, "audio/mpeg");
  EXPECT_EQ(probe_audio(mp3_note().substr(20))->mime, "audio/mpeg");  // without its tag
  EXPECT_EQ(probe_audio(mp3_note() + "TAG" + std::string(125, ' '))->mime, "audio/mpeg");
  EXPECT_EQ(probe_audio(adts_note())->mime, "audio/aac");
  EXPECT_EQ(probe_audio(flac_note())->mime, "audio/flac");
  EXPECT_EQ(probe_audio(webm_note())->mime, "audio/webm");

  EXPECT_FALSE(probe_audio(""));
  EXPECT_FALSE(probe_audio(rdtest::sample_jpeg()));
  EXPECT_FALSE(probe_audio("\x89PNG\r\n\x1a\n" + std::string(40, '\0')));
  EXPECT_FALSE(probe_audio("plain words, no sound at all"));
  // A QuickTime film and an MP4 video brand are not voice notes.
  EXPECT_FALSE(
      probe_audio(std::string("\0\0\0\x14"
                              "ftypqt  \0\0\0\0qt  ",
                              20)));
  EXPECT_FALSE(
      probe_audio(std::string("\0\0\0\x14"
                              "ftypM4V \0\0\0\0M4V ",
                              20)));
  EXPECT_FALSE(probe_audio("RIFF\x10\0\0\0WEBPVP8 "));
  // A recording's first bytes glued to something else, or cut off.
  const std::string junk(3000, 'x');
  EXPECT_FALSE(probe_audio(m4a_note().substr(0, 60) + junk));
  EXPECT_FALSE(probe_audio(m4a_note().substr(0, m4a_note().size() - 10)));
  EXPECT_FALSE(probe_audio(box("ftyp", "M4A " + std::string(4, '\0')) + box("mdat", junk)));
  EXPECT_FALSE(probe_audio(wav_note() + junk));
  EXPECT_FALSE(probe_audio(wav_note().substr(0, 100)));
  EXPECT_FALSE(probe_audio(ogg_note(1) + junk));
  // The other containers too: a header with random bytes, or frames cut off.
  std::string noise(3000, '\0');
  std::uint32_t x = 12345;
  for (auto& c : noise) c = static_cast<char>((x = x * 1103515245 + 12345) >> 16);
  EXPECT_FALSE(probe_audio("ID3" + noise));
  EXPECT_FALSE(probe_audio(mp3_note().substr(0, 30) + noise));
  EXPECT_FALSE(probe_audio(mp3_note() + noise));
  EXPECT_FALSE(probe_audio(mp3_note().substr(0, mp3_note().size() - 1)));
  EXPECT_FALSE(probe_audio(mp3_note(0)));  // a tag and no sound
  EXPECT_FALSE(probe_audio(adts_note() + noise));
  EXPECT_FALSE(probe_audio("#!AMR\n" + noise));
  EXPECT_FALSE(probe_audio(amr_note().substr(0, 40)));
  EXPECT_FALSE(probe_audio("fLaC" + noise));
  EXPECT_FALSE(probe_audio(flac_note().substr(0, 30)));
  EXPECT_FALSE(probe_audio(std::string("\x1A\x45\xDF\xA3", 4) + noise));
  EXPECT_FALSE(probe_audio(webm_note().substr(0, 20) + noise));
}

TEST(VoiceNotes, StoresEachNoteUnderAFreshNameAndReadsItBack) {
  rdtest::TempDir dir;
  rd::storage::VoiceNotes notes(fs::path(dir.path()) / "feedback");
  rd::storage::AudioInfo wav{"audio/wav", "wav"};
  auto a = notes.put("one", wav);
  auto b = notes.put("one", wav);
  ASSERT_TRUE(a && b);
  EXPECT_NE(*a, *b);
  // Pending until its row is in.
  EXPECT_FALSE(notes.read(*a));
  ASSERT_TRUE(notes.commit(*a) && notes.commit(*b));
  EXPECT_EQ(fs::path(*a).extension(), ".wav");
  EXPECT_EQ(notes.read(*a), "one");
  EXPECT_TRUE(notes.remove(*a));
  EXPECT_FALSE(notes.read(*a));
  EXPECT_EQ(notes.read(*b), "one");
  EXPECT_FALSE(notes.read("../rongdian.db"));
  auto c = notes.put("two", wav);
  ASSERT_TRUE(c);
  notes.discard(*c);
  EXPECT_EQ(files_in(notes.dir()), (std::vector<std::string>{*b}));
}

// What a kill -9 can leave between the note and its row (a file without a
// row, a row whose note is still pending, a half-written file) is finished
// or removed when the server starts again; notes just written are left to
// their writer.
TEST_P(FeedbackRoute, ACrashLeavesNeitherNoteWithoutRowNorRowWithoutNote) {
  if (rows_hold_notes()) {
    // The row holds its note there; a data folder's notes from before move
    // into the rows that name them at start.
    rd::storage::VoiceNotes notes(voice_dir());
    auto before = notes.put(wav_note(), {"audio/wav", "wav"});
    ASSERT_TRUE(before && notes.commit(*before));
    rd::store::Feedback f;
    f.text = "以前的";
    f.voice_key = *before;
    store_->add_feedback(f);
    server_->restart();
    ASSERT_TRUE(server_->process().ok());
    EXPECT_EQ(note(*before), wav_note());
    return;
  }
  auto sent = post({{"text", "有声音"}, {"voice", wav_note(), true}});
  ASSERT_EQ(sent.status, 200);
  const std::string kept = store_->list_feedback(0, 1).at(0).voice_key;
  server_->process().kill_now();

  rd::storage::VoiceNotes notes(voice_dir());
  auto orphan = notes.put(wav_note(), {"audio/wav", "wav"});   // its row never came
  auto pending = notes.put(wav_note(), {"audio/wav", "wav"});  // its row came
  auto fresh = notes.put(wav_note(), {"audio/wav", "wav"});    // being written just now
  auto no_row = notes.put(wav_note(), {"audio/wav", "wav"});   // named, without a row
  ASSERT_TRUE(orphan && pending && fresh && no_row && notes.commit(*no_row));
  rd::store::Feedback f;
  f.text = "崩溃前写下的";
  f.voice_key = *pending;
  f.voice_mime = "audio/wav";
  f.created_ms = 1;
  store_->add_feedback(f);
  std::ofstream((voice_dir() / ".tmp-AbC123").string()) << "half";
  const auto long_ago = fs::file_time_type::clock::now() - std::chrono::hours(1);
  for (const auto& name : {*orphan + ".pending", *no_row, std::string(".tmp-AbC123")})
    fs::last_write_time(voice_dir() / name, long_ago);

  server_->restart();
  ASSERT_TRUE(server_->process().ok());
  auto names = files_in(voice_dir());
  std::sort(names.begin(), names.end());
  std::vector<std::string> expected{kept, *pending, *fresh + ".pending"};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(names, expected);
  EXPECT_EQ(notes.read(*pending), wav_note());
}

}  // namespace

namespace {

// A database made before feedback existed (schema version 1) gets the table
// on the next start, and keeps what it had.
TEST(FeedbackStore, AnOlderDatabaseIsUpgraded) {
  rdtest::TempDir dir;
  const std::string path = dir.path() + "/old.db";
  {
    auto store = rd::store::open_store("sqlite:" + path, "", 1);
    rd::store::User u;
    u.id = "u1";
    u.mobile = "13800000001";
    u.nickname = "老用户";
    u.password_hash = "h";
    ASSERT_TRUE(store->create_user(u));
  }
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  // Back to the first schema: no feedback, no photo keys, no votes.
  ASSERT_EQ(sqlite3_exec(
                db,
                "DROP TABLE feedback; DROP TABLE votes; DROP INDEX items_photo_key; "
                "DROP INDEX items_keyless_url; ALTER TABLE items DROP COLUMN photo_key; "
                "DROP INDEX items_photo_digest; ALTER TABLE items DROP COLUMN photo_digest; "
                "DROP TABLE push_pending; DROP TABLE photos; UPDATE schema_version SET version = 1",
                nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);

  auto store = rd::store::open_store("sqlite:" + path, "", 1);
  EXPECT_TRUE(store->user_by_mobile("13800000001"));
  rd::store::Feedback f;
  f.text = "升级以后";
  f.created_ms = 5;
  EXPECT_GT(store->add_feedback(f).id, 0);
  ASSERT_EQ(store->list_feedback(0, 5).size(), 1u);
  EXPECT_EQ(store->list_feedback(0, 5)[0].text, "升级以后");
}

}  // namespace
