#include "http/Message.h"

namespace rd::http {

const std::string* Context::param(const std::string& name) const {
  auto it = query.find(name);
  return it == query.end() ? nullptr : &it->second;
}

Response json_response(const Request& req, bhttp::status status, const boost::json::value& body) {
  return json_response(req, static_cast<unsigned>(status), body);
}

Response json_response(const Request& req, unsigned status, const boost::json::value& body) {
  Response res;
  res.result(status);
  res.version(req.version());
  res.keep_alive(req.keep_alive());
  res.set(bhttp::field::content_type, "application/json; charset=utf-8");
  res.set(bhttp::field::server, "rongdian-server");
  res.body() = boost::json::serialize(body);
  res.prepare_payload();
  return res;
}

Response text_response(const Request& req, bhttp::status status, std::string body,
                       std::string content_type) {
  Response res{status, req.version()};
  res.keep_alive(req.keep_alive());
  res.set(bhttp::field::content_type, content_type);
  res.set(bhttp::field::server, "rongdian-server");
  res.body() = std::move(body);
  res.prepare_payload();
  return res;
}

Response busy_response(const Request& req) {
  auto res =
      json_response(req, bhttp::status::service_unavailable,
                    boost::json::object{{"error", "busy"}, {"message", "服务器繁忙，请稍后再试"}});
  res.set(bhttp::field::retry_after, "1");
  return res;
}

unsigned transfer_encoding_problem(std::string_view codings) {
  bool chunked = false;  // "chunked" was seen: it must be the last
  while (!codings.empty()) {
    const auto comma = codings.find(',');
    std::string_view coding = codings.substr(0, comma);
    codings = comma == std::string_view::npos ? std::string_view() : codings.substr(comma + 1);
    if (const auto semi = coding.find(';'); semi != std::string_view::npos)
      coding = coding.substr(0, semi);
    while (!coding.empty() && (coding.front() == ' ' || coding.front() == '\t'))
      coding.remove_prefix(1);
    while (!coding.empty() && (coding.back() == ' ' || coding.back() == '\t'))
      coding.remove_suffix(1);
    if (coding.empty()) continue;
    if (chunked) return 400;  // something after "chunked": the body cannot be framed
    if (!beast::iequals(coding, "chunked")) return 501;
    chunked = true;
  }
  return 0;
}

}  // namespace rd::http
