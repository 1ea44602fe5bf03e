// Upload tokens of the photo storage: "ACCESS_KEY:SIGNATURE:POLICY", where
// POLICY is the URL-safe Base64 of a JSON put policy and SIGNATURE the
// URL-safe Base64 of HMAC-SHA1(secret key, POLICY as sent).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace rd::storage {

// URL-safe Base64 (RFC 4648 section 5) with "=" padding.
std::string base64url_encode(std::string_view bytes);
// Accepts padded and unpadded input; nullopt on any character outside the alphabet.
std::optional<std::string> base64url_decode(std::string_view text);
std::string hmac_sha1(std::string_view key, std::string_view data);  // 20 raw bytes

// What a verified token allows: the policy's fields this storage honours.
struct UploadGrant {
  std::string bucket;
  std::optional<std::string> key;  // set when the scope was "bucket:key"
  bool prefixal = false;           // "isPrefixalScope": `key` is a prefix of the keys allowed
  bool insert_only = false;        // "insertOnly": never replace an existing key
  std::int64_t deadline = 0;
  std::optional<std::int64_t> size_limit;  // "fsizeLimit"
  std::optional<std::int64_t> size_min;    // "fsizeMin"
  std::string mime_limit;                  // "mimeLimit", e.g. "image/*" or "!image/png"
  std::string return_body;                 // "returnBody", a template of the reply
  std::string save_key;                    // "saveKey", a template of the key
  bool force_save_key = false;             // "forceSaveKey": saveKey even over a key sent
  std::string end_user;                    // "endUser"

  // Whether an upload may replace an object already under its key: only
  // with a "bucket:key" scope that is not a prefix and not insert-only.
  bool may_replace() const { return key && !prefixal && !insert_only; }
};

// Whether the policy's mimeLimit lets a file of this type in: types
// separated by ";", "type/*" for all of a kind, a leading "!" forbids the
// listed ones instead. An empty limit lets everything in.
bool mime_allowed(std::string_view limit, std::string_view mime);

struct TokenCheck {
  std::optional<UploadGrant> grant;  // set when the token is good
  unsigned status = 0;               // otherwise: the HTTP status to answer
  std::string error;                 // and the reason
};

// Checks a token against the known access keys (access key -> secret key),
// the bucket this store serves and the current time (seconds since 1970).
TokenCheck verify_upload_token(std::string_view token,
                               const std::map<std::string, std::string>& secrets,
                               const std::string& bucket, std::int64_t now);

}  // namespace rd::storage
