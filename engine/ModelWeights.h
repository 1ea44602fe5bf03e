// Weights of one model as stored in a tfjs-style weights manifest
// (<name>-weights_manifest.json) and its binary shards.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace rd::engine {

struct Tensor {
  std::vector<int> shape;   // as in the manifest (TF layout: HWIO for filters)
  std::vector<float> data;  // row-major, dequantized

  std::size_t size() const;
};

class ModelWeights {
 public:
  // Reads `<dir>/<name>-weights_manifest.json` and its shards; throws ModelError.
  static ModelWeights load(const std::string& dir, const std::string& name);

  // The tensor called `name` with the given number of dimensions; throws ModelError.
  const Tensor& get(const std::string& name, std::size_t dims) const;
  bool has(const std::string& name) const { return tensors_.count(name) != 0; }
  const std::string& model() const { return model_; }

 private:
  std::string model_;
  std::map<std::string, Tensor> tensors_;
};

// IEEE half precision to float.
float half_to_float(unsigned short h);

}  // namespace rd::engine
