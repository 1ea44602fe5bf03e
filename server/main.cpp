// rongdian-server: one binary for the app's backend, photo storage, push
// gateway and face detection service.
#include <filesystem>
#include <iostream>

#include "Config.h"
#include "Services.h"
#include "http/HttpServer.h"

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

    router.add(http::bhttp::verb::get, "/healthz",
               [](const http::Request& req, http::Context&) {
                 return http::json_response(req, http::bhttp::status::ok,
                                            boost::json::object{{"status", "ok"}});
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
