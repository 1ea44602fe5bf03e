#include "http/Multipart.h"

#include <algorithm>
#include <cctype>

namespace rd::http {

const FormPart* MultipartResult::find(std::string_view name) const {
  for (const auto& p : parts)
    if (p.name == name) return &p;
  return nullptr;
}

static std::string lower(std::string_view s) {
  std::string out(s);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

static std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
  return s;
}

// Value of `key` in a header parameter list like `form-data; name="img"; filename="a.jpg"`.
static std::optional<std::string> header_param(std::string_view value, std::string_view key) {
  std::size_t pos = 0;
  while (pos < value.size()) {
    std::size_t semi = value.find(';', pos);
    // A quoted value may hold ';': find the end of the parameter with quotes in mind.
    std::string_view rest = value.substr(pos);
    std::size_t eq = rest.find('=');
    if (eq != std::string_view::npos && (semi == std::string_view::npos || pos + eq < semi)) {
      std::string k = lower(trim(rest.substr(0, eq)));
      std::string_view v = rest.substr(eq + 1);
      while (!v.empty() && v.front() == ' ') v.remove_prefix(1);
      std::string val;
      std::size_t consumed;
      if (!v.empty() && v.front() == '"') {
        std::size_t i = 1;
        for (; i < v.size() && v[i] != '"'; ++i) {
          if (v[i] == '\\' && i + 1 < v.size()) ++i;
          val += v[i];
        }
        consumed = (v.data() - value.data()) + std::min(i + 1, v.size());
      } else {
        std::size_t end = v.find(';');
        val = std::string(trim(v.substr(0, end)));
        consumed = end == std::string_view::npos ? value.size() : (v.data() - value.data()) + end;
      }
      if (k == key) return val;
      pos = consumed;
      std::size_t next = value.find(';', pos);
      if (next == std::string_view::npos) break;
      pos = next + 1;
    } else {
      if (semi == std::string_view::npos) break;
      pos = semi + 1;
    }
  }
  return std::nullopt;
}

std::optional<std::string> multipart_boundary(std::string_view content_type) {
  std::string ct = lower(content_type);
  if (ct.rfind("multipart/form-data", 0) != 0) return std::nullopt;
  auto b = header_param(content_type, "boundary");
  if (!b || b->empty() || b->size() > 200) return std::nullopt;
  return b;
}

MultipartResult parse_multipart(std::string_view body, std::string_view boundary) {
  MultipartResult r;
  const std::string delim = "--" + std::string(boundary);
  std::size_t pos = body.find(delim);
  if (pos == std::string_view::npos) {
    r.error = "multipart body without its boundary";
    return r;
  }
  pos += delim.size();
  for (;;) {
    if (body.substr(pos, 2) == "--") return r;  // closing delimiter
    if (body.substr(pos, 2) != "\r\n") {
      r.error = "malformed multipart delimiter";
      return r;
    }
    pos += 2;
    std::size_t head_end = body.find("\r\n\r\n", pos);
    if (head_end == std::string_view::npos) {
      r.error = "multipart part without a header end";
      return r;
    }
    FormPart part;
    std::string_view head = body.substr(pos, head_end - pos);
    bool has_disposition = false;
    while (!head.empty()) {
      std::size_t eol = head.find("\r\n");
      std::string_view line = head.substr(0, eol);
      head = eol == std::string_view::npos ? std::string_view{} : head.substr(eol + 2);
      std::size_t colon = line.find(':');
      if (colon == std::string_view::npos) continue;
      std::string name = lower(trim(line.substr(0, colon)));
      std::string_view value = trim(line.substr(colon + 1));
      if (name == "content-disposition") {
        has_disposition = true;
        part.name = header_param(value, "name").value_or("");
        part.filename = header_param(value, "filename").value_or("");
      } else if (name == "content-type") {
        part.content_type = std::string(value);
      }
    }
    if (!has_disposition) {
      r.error = "multipart part without Content-Disposition";
      return r;
    }
    std::size_t data_start = head_end + 4;
    std::size_t next = body.find("\r\n" + delim, data_start);
    if (next == std::string_view::npos) {
      r.error = "multipart body ends inside a part";
      return r;
    }
    part.data = body.substr(data_start, next - data_start);
    r.parts.push_back(std::move(part));
    pos = next + 2 + delim.size();
  }
}

}  // namespace rd::http
