// What the server's subsystems share. main() fills it in this order:
// store, storage, push, detect, api; each subsystem's install() adds its
// routes to the router and may publish an object here for the later ones.
#pragma once

#include <memory>

#include "Config.h"
#include "http/HttpServer.h"

namespace rd::store {
class Store;
}
namespace rd::storage {
class PhotoStore;
class VoiceNotes;
}  // namespace rd::storage
namespace rd::push {
class Gateway;
}
namespace rd::detect {
class PhotoScorer;
}

namespace rd::server {

struct Services {
  Config& config;
  http::Router& router;
  http::Metrics& metrics;
  http::Server& server;

  std::shared_ptr<store::Store> store;          // accounts, items, comments (server/store)
  std::shared_ptr<storage::PhotoStore> photos;  // published photos (server/storage)
  std::shared_ptr<push::Gateway> push;          // device connections (server/push)
  std::shared_ptr<storage::VoiceNotes>
      voice_notes;  // feedback's voice notes as files (server/storage); null where the rows hold
                    // them
  std::shared_ptr<detect::PhotoScorer> scorer{};  // the local engine's scores; null when it is off
};

}  // namespace rd::server

// Each subsystem's entry point; throws std::runtime_error with a clear text
// when it cannot start (bad database URL, unreadable model files, ...).
namespace rd::store {
void install(server::Services& s);
}
namespace rd::storage {
void install(server::Services& s);
}
namespace rd::push {
void install(server::Services& s);
}
namespace rd::detect {
void install(server::Services& s);
}
namespace rd::api {
void install(server::Services& s);
}
