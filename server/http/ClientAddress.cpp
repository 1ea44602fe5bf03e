#include "http/ClientAddress.h"

#include <boost/asio/ip/address.hpp>
#include <cstdlib>
#include <stdexcept>

namespace rd::http {

namespace asio = boost::asio;

namespace {

asio::ip::address_v6 as_v6(const asio::ip::address& a) {
  return a.is_v6() ? a.to_v6() : asio::ip::make_address_v6(asio::ip::v4_mapped, a.to_v4());
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

}  // namespace

bool trusted_peer(const asio::ip::address& a, const std::vector<asio::ip::network_v6>& trusted) {
  const auto v6 = as_v6(a);
  for (const auto& n : trusted)
    if (asio::ip::network_v6(v6, 128).is_subnet_of(n) || n.address() == v6) return true;
  return false;
}

std::vector<asio::ip::network_v6> parse_networks(const std::string& list) {
  std::vector<asio::ip::network_v6> out;
  std::string_view rest = list;
  while (!rest.empty()) {
    const auto comma = rest.find(',');
    const std::string entry(trim(rest.substr(0, comma)));
    rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
    if (entry.empty()) continue;
    const auto slash = entry.find('/');
    boost::system::error_code ec;
    const auto addr = asio::ip::make_address(entry.substr(0, slash), ec);
    int bits = addr.is_v4() ? 32 : 128;
    if (!ec && slash != std::string::npos) {
      const std::string len = entry.substr(slash + 1);
      char* end = nullptr;
      bits = int(std::strtol(len.c_str(), &end, 10));
      if (len.empty() || *end || bits < 0 || bits > (addr.is_v4() ? 32 : 128))
        throw std::invalid_argument("bad network '" + entry + "'");
    }
    if (ec) throw std::invalid_argument("bad network '" + entry + "'");
    const int v6bits = addr.is_v4() ? bits + 96 : bits;
    out.push_back(
        asio::ip::network_v6(as_v6(addr), static_cast<unsigned short>(v6bits)).canonical());
  }
  return out;
}

std::string client_address(const asio::ip::address& peer, std::string_view forwarded_for,
                           const std::vector<asio::ip::network_v6>& trusted) {
  if (trusted.empty() || forwarded_for.empty() || !trusted_peer(peer, trusted))
    return peer.to_string();
  // Each proxy appends the address it got the request from: walk back from
  // the right past our own proxies; the first other one is the client.
  std::string client = peer.to_string();
  while (!forwarded_for.empty()) {
    const auto comma = forwarded_for.rfind(',');
    const std::string_view hop =
        trim(comma == std::string_view::npos ? forwarded_for : forwarded_for.substr(comma + 1));
    forwarded_for =
        comma == std::string_view::npos ? std::string_view() : forwarded_for.substr(0, comma);
    boost::system::error_code ec;
    const auto a = asio::ip::make_address(std::string(hop), ec);
    if (ec) break;  // not an address: stop at what we could trust
    client = a.to_string();
    if (!trusted_peer(a, trusted)) break;
  }
  return client;
}

}  // namespace rd::http
