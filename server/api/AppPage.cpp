// GET /app (and /app/review): the page the app's share texts, its "给容点评分"
// entry and its contact text point at when the build names no outside store
// or mail address: what the app is, where to get it, how to reach us.
#include "Services.h"
#include "api/Api.h"

namespace rd::api {

namespace {

const char* const kPage = R"(<!doctype html>
<html lang="zh-CN"><head><meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>容点</title>
<style>body{font-family:"Noto Sans CJK SC",sans-serif;max-width:32em;margin:2em auto;padding:0 1em;line-height:1.6}</style>
</head><body>
<h1>容点</h1>
<p>给自己的脸打一个分吧：拍一张照片，容点为眼睛、鼻子、嘴巴和气质评分，再和小伙伴们比一比容点。</p>
<h2 id="get">下载</h2>
<p>容点由这台服务器提供；请向它的管理员索取安装包。</p>
<h2 id="review">评分</h2>
<p>喜欢容点吗？在应用里的“设置”→“意见反馈”写下您的评价，我们每一条都会看。</p>
<h2 id="contact">联系我们</h2>
<p>意见、合作：请在应用的“设置”→“意见反馈”里留言（可以留语音），我们会尽快回复。</p>
</body></html>
)";

}  // namespace

void install_app_page(server::Services& s) {
  s.router.add_prefix(
      http::bhttp::verb::get, "/app",
      [](const http::Request& req, http::Context& ctx) {
        if (ctx.path != "/app" && ctx.path != "/app/" && ctx.path != "/app/review")
          return http::json_response(req, http::bhttp::status::not_found,
                                     boost::json::object{{"error", "not found"}});
        return http::text_response(req, http::bhttp::status::ok, kPage, "text/html; charset=utf-8");
      },
      "app-page");
}

}  // namespace rd::api
