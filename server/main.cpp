// rongdian-server: one binary for the app's backend, photo storage, push
// gateway and face detection service.
#include <filesystem>
#include <iostream>

#include "Config.h"
#include "Services.h"
#include "http/HttpServer.h"
#include "storage/PhotoStore.h"
#include "store/Store.h"

int main(int argc, char** argv) {
  using namespace rd;
  auto parsed = server::parse_config(argc, argv);
  if (parsed.exit) return parsed.exit_code;
  server::Config cfg = parsed.config;

  try {
    std::filesystem::create_directories(cfg.data_dir);

    http::Metrics metrics;
    http::Router router;
    http::ServerOptions opts;
    opts.host = cfg.host();
    opts.port = cfg.port();
    opts.worker_threads = cfg.threads;
    opts.log_requests = !cfg.quiet;
    try {
      opts.trusted_proxies = http::parse_networks(cfg.trusted_proxies);
    } catch (const std::invalid_argument& e) {
      throw std::runtime_error(std::string("--trusted-proxy: ") + e.what());
    }
    opts.max_connections = cfg.max_connections;
    opts.max_connections_per_block = cfg.max_connections_per_block;
    opts.body_memory = std::size_t(cfg.body_memory_mb) << 20;
    opts.body_memory_per_block = std::size_t(cfg.body_memory_block_mb) << 20;
    opts.cpu_threads = cfg.cpu_threads;
    opts.cpu_queue = cfg.cpu_queue;
    opts.idle_timeout = std::chrono::seconds(std::max(1, cfg.idle_timeout));
    opts.request_timeout = std::chrono::seconds(std::max(1, cfg.request_timeout));
    http::Server srv(opts, router, metrics);
    srv.listen();
    if (cfg.public_url.empty())
      cfg.public_url = "http://" + opts.host + ":" + std::to_string(srv.port());

    server::Services services{cfg, router, metrics, srv, nullptr, nullptr, nullptr, nullptr};
    store::install(services);
    storage::install(services);
    push::install(services);
    detect::install(services);
    api::install(services);

    // Ok only when the database answers and photos can be stored; otherwise
    // 503 with the part that failed.
    router.add(http::bhttp::verb::get, "/healthz",
               [&services](const http::Request& req, http::Context&) {
                 boost::json::object failed;
                 if (auto p = services.store->problem()) failed["database"] = *p;
                 if (services.photos)
                   if (auto p = services.photos->problem()) failed["storage"] = *p;
                 if (failed.empty())
                   return http::json_response(req, http::bhttp::status::ok,
                                              boost::json::object{{"status", "ok"}});
                 return http::json_response(
                     req, http::bhttp::status::service_unavailable,
                     boost::json::object{{"status", "failing"}, {"failed", std::move(failed)}});
               });
    router.add(http::bhttp::verb::get, "/metrics",
               [&metrics](const http::Request& req, http::Context&) {
                 return http::text_response(req, http::bhttp::status::ok, metrics.render(),
                                            "text/plain; version=0.0.4");
               });

    for (const auto& line : server::default_notices(cfg))
      std::cerr << "rongdian-server: " << line << "\n";
    // The first line on stdout tells scripts and tests where the server is.
    std::cout << "rongdian-server: listening on http://" << opts.host << ":" << srv.port()
              << " (data in " << std::filesystem::absolute(cfg.data_dir).string() << ")"
              << std::endl;
    srv.install_signal_handlers();
    srv.run();
    std::cout << "rongdian-server: stopped" << std::endl;
  } catch (const std::exception& e) {
    std::cerr << "rongdian-server: " << e.what() << "\n";
    return 1;
  }
  return 0;
}
