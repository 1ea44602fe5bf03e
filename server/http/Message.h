// The messages the HTTP core passes to handlers: the request, what it knows
// about it besides (Context), and the responses handlers build.
#pragma once

#include <boost/beast.hpp>
#include <boost/json.hpp>
#include <map>
#include <string>
#include <string_view>

namespace rd::http {

namespace beast = boost::beast;
namespace bhttp = boost::beast::http;
namespace asio = boost::asio;
using tcp = asio::ip::tcp;

using Request = bhttp::request<bhttp::string_body>;
using Response = bhttp::response<bhttp::string_body>;

// What a handler learns about the request besides the message itself.
struct Context {
  std::string remote_address;                     // peer IP as text
  std::string path;                               // target without the query, percent-decoded
  std::multimap<std::string, std::string> query;  // decoded query parameters
  std::string label;  // metrics label (route label, or e.g. the api command)

  // First value of a query parameter, or nullptr.
  const std::string* param(const std::string& name) const;
};

// Helpers for handlers.
Response json_response(const Request& req, bhttp::status status, const boost::json::value& body);
Response text_response(const Request& req, bhttp::status status, std::string body,
                       std::string content_type = "text/plain; charset=utf-8");
// A response with a non-standard numeric status code (e.g. 614 or 579).
Response json_response(const Request& req, unsigned status, const boost::json::value& body);
// 503 {"error":"busy", "message": ...} with Retry-After: 1.
Response busy_response(const Request& req);
// What a request's Transfer-Encoding asks that this server cannot do: 0 when
// nothing (none, or "chunked" alone), 400 when "chunked" is not the last
// coding or comes twice, 501 for any other coding (gzip, ...).
unsigned transfer_encoding_problem(std::string_view codings);

}  // namespace rd::http
