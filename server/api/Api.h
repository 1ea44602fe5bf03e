// The app's backend: POST /api?cmd=NAME with a flat JSON object, answered by
// a JSON object; an error reply carries "error" (a short code) and "message"
// (a text for the user). Error replies use HTTP status 200 so that the app
// shows their message; only server failures use 5xx.
#pragma once

namespace rd::server {
struct Services;
}

namespace rd::api {

// POST /feedback (api/Feedback.cpp); api::install calls it.
void install_feedback(server::Services& s);
// GET /app: the page the app links to for its store, review and contact (AppPage.cpp).
void install_app_page(server::Services& s);

}  // namespace rd::api
