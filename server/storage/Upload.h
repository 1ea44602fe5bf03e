// The form upload of the photo storage: a multipart form with an upload
// token, the file and optionally its key, checksum and the client's own
// "x:" fields, as the cloud storage's SDKs send it (see docs/storage.md).
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "engine/FaceEngine.h"
#include "http/HttpServer.h"
#include "storage/PhotoFiles.h"

namespace rd::storage {

// A template of the upload policy (returnBody, saveKey) with its variables,
// "$(name)" or "${name}", replaced by what `lookup` gives (a text, or a
// number when `number` is set). In JSON (`json`), a variable inside a string
// is written as the string's escaped content, elsewhere as a JSON value
// (null when unknown); outside JSON it is written as it is.
struct TemplateValue {
  std::string text;
  bool number = false;
};
std::string expand_template(
    std::string_view tmpl,
    const std::function<std::optional<TemplateValue>(std::string_view)>& lookup, bool json);

class Uploads {
 public:
  Uploads(std::shared_ptr<PhotoFiles> files, std::map<std::string, std::string> secrets,
          std::string bucket);
  http::Response handle(const http::Request& req, const http::Context& ctx) const;

  // What a photo may be: the engine's limits for decoding it.
  static engine::Limits photo_limits();

 private:
  std::shared_ptr<PhotoFiles> files_;
  std::map<std::string, std::string> secrets_;  // access key -> secret key
  std::string bucket_;
};

}  // namespace rd::storage
