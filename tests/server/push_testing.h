// The app's side of the push gateway's WebSocket, for tests.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <boost/asio.hpp>
#include <boost/beast.hpp>
#include <boost/json.hpp>
#include <string>

namespace rdtest {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
namespace json = boost::json;
using tcp = asio::ip::tcp;

// The app's side of the socket, blocking, with a receive timeout.
class Device {
 public:
  explicit Device(unsigned short port) {
    ws_.next_layer().connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), port));
    timeval tv{5, 0};
    ::setsockopt(ws_.next_layer().native_handle(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ws_.handshake("127.0.0.1", "/push");
  }
  void send(const json::value& v) { ws_.write(asio::buffer(json::serialize(v))); }
  // The next message; null when none came in time or the connection ended.
  json::value recv() {
    beast::flat_buffer buf;
    beast::error_code ec;
    ws_.read(buf, ec);
    if (ec) {
      last_error = ec;
      return nullptr;
    }
    return json::parse(beast::buffers_to_string(buf.data()));
  }
  std::string register_new() {
    send({{"register", true}});
    return std::string(recv().at("device_token").as_string());
  }
  // Acknowledges pushes and waits for the confirmation.
  void ack(const json::value& ids) {
    send({{"ack", ids}});
    auto reply = recv();
    json::array expected = ids.is_array() ? ids.as_array() : json::array{ids};
    EXPECT_EQ(reply, json::value(json::object{{"acked", expected}}));
  }
  void present(const std::string& token) {
    send({{"token", token}});
    EXPECT_EQ(recv().at("device_token").as_string(), token);
  }
  beast::error_code last_error;

 private:
  asio::io_context ioc_;
  websocket::stream<tcp::socket> ws_{ioc_};
};

}  // namespace rdtest
