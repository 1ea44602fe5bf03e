#include "storage/UploadToken.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <boost/json.hpp>

namespace rd::storage {

namespace {
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

int sextet(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '-') return 62;
  if (c == '_') return 63;
  return -1;
}

TokenCheck refuse(unsigned status, std::string error) {
  TokenCheck c;
  c.status = status;
  c.error = std::move(error);
  return c;
}
}  // namespace

std::string base64url_encode(std::string_view in) {
  std::string out;
  out.reserve((in.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 2 < in.size(); i += 3) {
    unsigned v = (static_cast<unsigned char>(in[i]) << 16) |
                 (static_cast<unsigned char>(in[i + 1]) << 8) |
                 static_cast<unsigned char>(in[i + 2]);
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += kAlphabet[(v >> 6) & 63];
    out += kAlphabet[v & 63];
  }
  if (i + 1 == in.size()) {
    unsigned v = static_cast<unsigned char>(in[i]) << 16;
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += "==";
  } else if (i + 2 == in.size()) {
    unsigned v =
        (static_cast<unsigned char>(in[i]) << 16) | (static_cast<unsigned char>(in[i + 1]) << 8);
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += kAlphabet[(v >> 6) & 63];
    out += '=';
  }
  return out;
}

std::optional<std::string> base64url_decode(std::string_view text) {
  while (!text.empty() && text.back() == '=') text.remove_suffix(1);
  if (text.size() % 4 == 1) return std::nullopt;
  std::string out;
  out.reserve(text.size() * 3 / 4);
  unsigned acc = 0;
  int bits = 0;
  for (char c : text) {
    int v = sextet(c);
    if (v < 0) return std::nullopt;
    acc = (acc << 6) | static_cast<unsigned>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out += static_cast<char>((acc >> bits) & 0xff);
    }
  }
  return out;
}

std::string hmac_sha1(std::string_view key, std::string_view data) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(data.data()), data.size(), md, &len);
  return std::string(reinterpret_cast<char*>(md), len);
}

TokenCheck verify_upload_token(std::string_view token,
                               const std::map<std::string, std::string>& secrets,
                               const std::string& bucket, std::int64_t now) {
  if (token.empty()) return refuse(401, "token not specified");
  // The access key may itself hold ':'; the last two fields never do.
  auto second = token.rfind(':');
  if (second == std::string_view::npos || second == 0) return refuse(401, "bad token");
  auto first = token.rfind(':', second - 1);
  if (first == std::string_view::npos) return refuse(401, "bad token");
  std::string access_key(token.substr(0, first));
  std::string_view signature = token.substr(first + 1, second - first - 1);
  std::string_view encoded_policy = token.substr(second + 1);

  auto secret = secrets.find(access_key);
  if (secret == secrets.end()) return refuse(401, "bad token: unknown access key");
  auto sig = base64url_decode(signature);
  std::string expected = hmac_sha1(secret->second, encoded_policy);
  if (!sig || sig->size() != expected.size() ||
      CRYPTO_memcmp(sig->data(), expected.data(), expected.size()) != 0)
    return refuse(401, "bad token: signature mismatch");

  auto policy_text = base64url_decode(encoded_policy);
  if (!policy_text) return refuse(401, "bad token: policy is not URL-safe Base64");
  boost::system::error_code ec;
  boost::json::value policy = boost::json::parse(*policy_text, ec);
  if (ec || !policy.is_object()) return refuse(401, "bad token: policy is not a JSON object");
  const auto& obj = policy.as_object();

  const auto* scope = obj.if_contains("scope");
  if (!scope || !scope->is_string() || scope->as_string().empty())
    return refuse(401, "bad token: policy has no scope");
  const auto* deadline = obj.if_contains("deadline");
  std::int64_t when = 0;
  if (deadline && deadline->is_int64())
    when = deadline->as_int64();
  else if (deadline && deadline->is_uint64())
    when = static_cast<std::int64_t>(std::min<std::uint64_t>(deadline->as_uint64(), INT64_MAX));
  else
    return refuse(401, "bad token: policy has no deadline");
  if (when < now) return refuse(401, "expired token");

  UploadGrant g;
  std::string_view sc = scope->as_string();
  auto colon = sc.find(':');
  g.bucket = std::string(sc.substr(0, colon));
  if (colon != std::string_view::npos) g.key = std::string(sc.substr(colon + 1));
  if (g.bucket != bucket) return refuse(631, "no such bucket");
  g.deadline = when;
  auto number = [&](const char* name) -> std::optional<std::int64_t> {
    const auto* v = obj.if_contains(name);
    if (v && v->is_int64()) return v->as_int64();
    if (v && v->is_uint64())
      return static_cast<std::int64_t>(std::min<std::uint64_t>(v->as_uint64(), INT64_MAX));
    if (v && v->is_bool()) return v->as_bool() ? 1 : 0;
    return std::nullopt;
  };
  auto text = [&](const char* name) {
    const auto* v = obj.if_contains(name);
    return v && v->is_string() ? std::string(v->as_string()) : std::string();
  };
  g.size_limit = number("fsizeLimit");
  g.size_min = number("fsizeMin");
  g.prefixal = number("isPrefixalScope").value_or(0) != 0;
  g.insert_only = number("insertOnly").value_or(0) != 0;
  g.force_save_key = number("forceSaveKey").value_or(0) != 0;
  g.mime_limit = text("mimeLimit");
  g.return_body = text("returnBody");
  g.save_key = text("saveKey");
  g.end_user = text("endUser");
  if (g.prefixal && !g.key) g.key = std::string();  // a bucket-wide prefix: any key
  TokenCheck ok;
  ok.grant = std::move(g);
  return ok;
}

bool mime_allowed(std::string_view limit, std::string_view mime) {
  if (limit.empty()) return true;
  const bool forbid = limit.front() == '!';
  if (forbid) limit.remove_prefix(1);
  bool listed = false;
  while (!limit.empty() && !listed) {
    const auto semi = limit.find(';');
    std::string_view entry = limit.substr(0, semi);
    limit = semi == std::string_view::npos ? std::string_view() : limit.substr(semi + 1);
    while (!entry.empty() && entry.front() == ' ') entry.remove_prefix(1);
    while (!entry.empty() && entry.back() == ' ') entry.remove_suffix(1);
    if (entry.ends_with("/*"))
      listed = mime.starts_with(entry.substr(0, entry.size() - 1));
    else
      listed = entry == mime;
  }
  return listed != forbid;
}

}  // namespace rd::storage
