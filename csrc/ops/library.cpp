// The operators in PyTorch's dispatcher (torch.ops.vorta_addons.*): one
// schema each, from operators.h, and the module's own operator functions as
// the kernel of every backend this build has. Their fake implementations,
// which torch.compile and export trace with, are in the package's _fake.py.
#include <torch/library.h>

#include "ops/backends.h"
#include "ops/operators.h"
#include "ops/ops.h"

namespace vorta {
namespace {

// The dispatcher passes `float` arguments as double; the operators take float.
template <typename T>
struct DispatcherArg {
  using type = T;
};
template <>
struct DispatcherArg<float> {
  using type = double;
};

template <auto Op>
struct Kernel;
template <typename R, typename... Args, R (*Op)(Args...)>
struct Kernel<Op> {
  static R call(typename DispatcherArg<Args>::type... args) { return Op(static_cast<Args>(args)...); }
};

// The operator functions route by the tensors' device themselves, so every
// backend key gets the same kernels.
void register_kernels(torch::Library& m) {
#define VORTA_IMPL(name, doc, schema) m.impl(#name, TORCH_FN(Kernel<&name>::call));
  VORTA_OPERATORS(VORTA_IMPL)
#undef VORTA_IMPL
}

}  // namespace
}  // namespace vorta

TORCH_LIBRARY(vorta_addons, m) {
  m.set_python_module("vorta_addons._fake");
  // opcheck passes for every operator (tests/test_library.py).
#define VORTA_SCHEMA(name, doc, schema) m.def(#name schema, {at::Tag::pt2_compliant_tag});
  VORTA_OPERATORS(VORTA_SCHEMA)
#undef VORTA_SCHEMA
}

TORCH_LIBRARY_IMPL(vorta_addons, CPU, m) { vorta::register_kernels(m); }

#if VORTA_WITH_CUDA
TORCH_LIBRARY_IMPL(vorta_addons, CUDA, m) { vorta::register_kernels(m); }
#endif
