// multipart/form-data bodies (RFC 7578) as sent by the app's uploaders.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rd::http {

struct FormPart {
  std::string name;          // form field name
  std::string filename;      // empty when the part carried none
  std::string content_type;  // empty when the part carried none
  std::string_view data;     // points into the body passed to parse_multipart
};

struct MultipartResult {
  std::vector<FormPart> parts;
  std::string error;  // empty on success
  const FormPart* find(std::string_view name) const;
};

// The boundary parameter of a Content-Type header value, if it is multipart/form-data.
std::optional<std::string> multipart_boundary(std::string_view content_type);

// Splits `body` into its parts. The result's views stay valid while `body` lives.
MultipartResult parse_multipart(std::string_view body, std::string_view boundary);

}  // namespace rd::http
