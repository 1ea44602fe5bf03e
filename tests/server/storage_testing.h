// Helpers for tests that upload photos: upload tokens made with OpenSSL
// directly (independently of the server's own code) and the multipart form.
#pragma once

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/ServerProcess.h"

namespace rdtest {

inline std::string b64url(const std::string& in) {
  std::string out(4 * ((in.size() + 2) / 3) + 1, '\0');
  int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                          reinterpret_cast<const unsigned char*>(in.data()),
                          static_cast<int>(in.size()));
  out.resize(static_cast<std::size_t>(n));
  for (char& c : out) c = c == '+' ? '-' : c == '/' ? '_' : c;
  return out;
}

inline std::string make_upload_token(const std::string& policy_json, const std::string& ak,
                                     const std::string& sk) {
  std::string encoded = b64url(policy_json);
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned len = 0;
  HMAC(EVP_sha1(), sk.data(), static_cast<int>(sk.size()),
       reinterpret_cast<const unsigned char*>(encoded.data()), encoded.size(), md, &len);
  return ak + ":" + b64url(std::string(reinterpret_cast<char*>(md), len)) + ":" + encoded;
}

inline std::string upload_policy(const std::string& scope, long long deadline_offset = 3600) {
  return "{\"scope\":\"" + scope + "\",\"deadline\":" +
         std::to_string(static_cast<long long>(std::time(nullptr)) + deadline_offset) + "}";
}

inline std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

inline std::string sample_jpeg() {
  return read_file(std::string(RD_MODELS_DIR) + "/demo/sample1.jpg");
}

struct FormField {
  std::string name, value;
  bool is_file = false;
};

// The form upload as the app's uploader sends it.
inline HttpReply upload(unsigned short port, const std::vector<FormField>& fields,
                        const std::string& path = "/upload") {
  const std::string boundary = "----rdtestBoundary7MA4YWxk";
  std::string body;
  for (const auto& f : fields) {
    body += "--" + boundary + "\r\nContent-Disposition: form-data; name=\"" + f.name + "\"";
    if (f.is_file) body += "; filename=\"photo\"\r\nContent-Type: application/octet-stream";
    body += "\r\n\r\n" + f.value + "\r\n";
  }
  body += "--" + boundary + "--\r\n";
  return http_request(port, "POST", path, body,
                      {{"Content-Type", "multipart/form-data; boundary=" + boundary}});
}

}  // namespace rdtest
