// Who a request comes from: the peer, or the client a trusted proxy in front
// of this server names in X-Forwarded-For.
#pragma once

#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/network_v6.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace rd::http {

// Whether `a` lies in one of the `trusted` networks (IPv4 addresses mapped).
bool trusted_peer(const boost::asio::ip::address& a,
                  const std::vector<boost::asio::ip::network_v6>& trusted);
// "10.0.0.0/8,::1/128,127.0.0.1" (one address is its own /32 or /128) as
// networks in IPv6 form (IPv4 ones mapped); throws std::invalid_argument
// naming a bad entry.
std::vector<boost::asio::ip::network_v6> parse_networks(const std::string& list);
// The client's address: the peer's, or, when the peer is a trusted proxy, the
// last address in X-Forwarded-For that is not itself a trusted proxy.
std::string client_address(const boost::asio::ip::address& peer, std::string_view forwarded_for,
                           const std::vector<boost::asio::ip::network_v6>& trusted);

}  // namespace rd::http
