// The Python module: the operators of operators.h in their order, each with
// its docstring, plus the private hooks of the package and the test suite.
#include <torch/extension.h>

#include "cpu/decode.h"
#include "cpu/isa.h"
#include "ops/backends.h"
#include "ops/device.h"
#include "ops/operators.h"
#include "ops/ops.h"
#include "ops/sdp/api.h"

#if VORTA_CUDA_DECODE
#include "cuda/decode.h"
#endif

PYBIND11_MODULE(_C, m) {
  using namespace vorta;
#define VORTA_DEF(name, doc, schema) m.def(#name, &name, doc);
  VORTA_OPERATORS(VORTA_DEF)
#undef VORTA_DEF
  m.attr("__version__") = VORTA_VERSION;

  // The prefill path a device takes, for the fake implementations of the package.
  m.def("_prefill_uses_matrix_engine", &prefill::use_matrix_engine);

  // Private hooks for the test suite; not part of the API.
  auto testing = m.def_submodule("_testing");
  testing.def("classify_device", [](const std::string& name, uint32_t simd_width, uint32_t device_id) {
    return static_cast<int>(classify_device(name, simd_width, device_id));
  });
  testing.def("device_family", [](const c10::Device& device) {
    return static_cast<int>(get_device_family(device));
  });
  testing.def("force_device_family", [](std::optional<int> family) {
    TORCH_CHECK(!family || (*family >= 0 && *family <= static_cast<int>(DeviceFamily::OTHER)),
                "no device family ", *family);
    set_device_family_override(family ? std::optional<DeviceFamily>(static_cast<DeviceFamily>(*family))
                                      : std::nullopt);
  });
  testing.def("allow_wide_decode", &cpu::allow_wide_decode);
#if VORTA_CUDA_DECODE
  // GPU tuning runs: how finely decode splits the keys (row splits, fewest blocks; 0, 0: defaults).
  testing.def("cuda_decode_split", &cuda::set_decode_split);
#endif
  // The CPU kernels' instruction set: generic, avx2 or avx512 (VORTA_CPU_ISA).
  testing.def("cpu_isa", [] { return std::string(cpu::isa_name(cpu::active_isa())); });
  // The operator groups each backend of this build has kernels for.
  testing.def("backends", [] {
    const std::vector<std::pair<const char*, bool>> groups = {
        {"norm", VORTA_CUDA_NORM},         {"elementwise", VORTA_CUDA_ELEMENTWISE},
        {"rotary", VORTA_CUDA_ROTARY},     {"kv_cache", VORTA_CUDA_KV_CACHE},
        {"moe", VORTA_CUDA_MOE},           {"decode", VORTA_CUDA_DECODE},
        {"prefill", VORTA_CUDA_PREFILL}};
    std::map<std::string, std::vector<std::string>> built{{"cpu", {}}};
    if (VORTA_WITH_CUDA) built["cuda"];
    for (const auto& [group, cuda] : groups) {
      built["cpu"].push_back(group);
      if (cuda) built["cuda"].push_back(group);
    }
    return built;
  });
}
