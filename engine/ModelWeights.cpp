#include "engine/ModelWeights.h"

#include <boost/json.hpp>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>

#include "engine/FaceEngine.h"

namespace rd::engine {

namespace json = boost::json;

std::size_t Tensor::size() const {
  std::size_t n = 1;
  for (int d : shape) n *= static_cast<std::size_t>(d);
  return n;
}

float half_to_float(unsigned short h) {
  const unsigned sign = (h >> 15) & 1u, exp = (h >> 10) & 0x1fu, mant = h & 0x3ffu;
  float v;
  if (exp == 0)
    v = std::ldexp(static_cast<float>(mant), -24);
  else if (exp == 31)
    v = mant ? NAN : INFINITY;
  else
    v = std::ldexp(static_cast<float>(mant | 0x400u), static_cast<int>(exp) - 25);
  return sign ? -v : v;
}

namespace {

std::string read_file(const std::string& path, const std::string& model) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ModelError("model " + model + ": cannot read " + path);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

std::size_t element_bytes(const std::string& dtype) {
  if (dtype == "float32" || dtype == "int32") return 4;
  if (dtype == "uint16" || dtype == "int16" || dtype == "float16") return 2;
  if (dtype == "uint8" || dtype == "int8") return 1;
  return 0;
}

}  // namespace

ModelWeights ModelWeights::load(const std::string& dir, const std::string& name) {
  ModelWeights w;
  w.model_ = name;
  const std::string manifest_path = dir + "/" + name + "-weights_manifest.json";
  const std::string text = read_file(manifest_path, name);
  json::value manifest;
  try {
    manifest = json::parse(text);
  } catch (const std::exception& e) {
    throw ModelError("model " + name + ": " + manifest_path + " is not JSON: " + e.what());
  }
  auto fail = [&](const std::string& why) -> ModelError {
    return ModelError("model " + name + ": " + manifest_path + ": " + why);
  };
  if (!manifest.is_array()) throw fail("expected an array of weight groups");

  for (const auto& group_v : manifest.as_array()) {
    if (!group_v.is_object()) throw fail("weight group is not an object");
    const auto& group = group_v.as_object();
    const auto* paths = group.if_contains("paths");
    const auto* weights = group.if_contains("weights");
    if (!paths || !paths->is_array() || !weights || !weights->is_array())
      throw fail("weight group lacks paths or weights");
    std::string data;
    for (const auto& p : paths->as_array()) {
      if (!p.is_string()) throw fail("shard path is not a string");
      data += read_file(dir + "/" + std::string(p.as_string()), name);
    }
    std::size_t offset = 0;
    for (const auto& entry_v : weights->as_array()) {
      if (!entry_v.is_object()) throw fail("weight entry is not an object");
      const auto& entry = entry_v.as_object();
      const auto* ename = entry.if_contains("name");
      const auto* shape = entry.if_contains("shape");
      const auto* dtype = entry.if_contains("dtype");
      if (!ename || !ename->is_string() || !shape || !shape->is_array() || !dtype ||
          !dtype->is_string())
        throw fail("weight entry lacks name, shape or dtype");
      Tensor t;
      for (const auto& d : shape->as_array()) {
        if (!d.is_int64() || d.as_int64() < 0 || d.as_int64() > (1 << 24))
          throw fail("bad shape of " + std::string(ename->as_string()));
        t.shape.push_back(static_cast<int>(d.as_int64()));
      }
      const std::size_t n = t.size();
      std::string stored = std::string(dtype->as_string());
      double scale = 1, min = 0;
      bool quantized = false;
      if (const auto* q = entry.if_contains("quantization"); q && q->is_object()) {
        const auto& qo = q->as_object();
        if (const auto* qd = qo.if_contains("dtype"); qd && qd->is_string())
          stored = std::string(qd->as_string());
        if (stored != "float16") {
          const auto* s = qo.if_contains("scale");
          const auto* m = qo.if_contains("min");
          if (!s || !m || !s->is_number() || !m->is_number())
            throw fail("quantized weight " + std::string(ename->as_string()) +
                       " lacks scale or min");
          scale = s->to_number<double>();
          min = m->to_number<double>();
          quantized = true;
        }
      }
      const std::size_t eb = element_bytes(stored);
      if (eb == 0) throw fail("unsupported dtype " + stored);
      if (offset + n * eb > data.size())
        throw fail("shards end before weight " + std::string(ename->as_string()));
      const unsigned char* p = reinterpret_cast<const unsigned char*>(data.data()) + offset;
      t.data.resize(n);
      for (std::size_t i = 0; i < n; ++i) {
        float v = 0;
        if (stored == "uint8") {
          v = static_cast<float>(p[i]);
        } else if (stored == "int8") {
          v = static_cast<float>(static_cast<std::int8_t>(p[i]));
        } else if (stored == "uint16" || stored == "int16" || stored == "float16") {
          std::uint16_t u;
          std::memcpy(&u, p + 2 * i, 2);
          v = stored == "float16"  ? half_to_float(u)
              : stored == "uint16" ? static_cast<float>(u)
                                   : static_cast<float>(static_cast<std::int16_t>(u));
        } else if (stored == "float32") {
          std::memcpy(&v, p + 4 * i, 4);
        } else if (stored == "int32") {
          std::int32_t s;
          std::memcpy(&s, p + 4 * i, 4);
          v = static_cast<float>(s);
        }
        if (quantized) v = static_cast<float>(v * scale + min);
        t.data[i] = v;
      }
      offset += n * eb;
      w.tensors_[std::string(ename->as_string())] = std::move(t);
    }
    if (offset != data.size())
      throw fail("shards hold " + std::to_string(data.size()) + " bytes, manifest needs " +
                 std::to_string(offset));
  }
  return w;
}

const Tensor& ModelWeights::get(const std::string& name, std::size_t dims) const {
  auto it = tensors_.find(name);
  if (it == tensors_.end()) throw ModelError("model " + model_ + ": no weight " + name);
  if (it->second.shape.size() != dims)
    throw ModelError("model " + model_ + ": weight " + name + " has " +
                     std::to_string(it->second.shape.size()) + " dimensions, expected " +
                     std::to_string(dims));
  return it->second;
}

}  // namespace rd::engine
