// The module and its operator table, in registration order.
#include <torch/extension.h>

#include "cpu/decode.h"
#include "ops/backends.h"
#include "ops/device.h"
#include "ops/ops.h"

PYBIND11_MODULE(vorta_addons, m) {
  using namespace vorta;
  m.def("sdp", &sdp, "sdp");
  m.def("sdp_fp8", &sdp_fp8, "fp8 sdp");
  m.def("sdp_causal", &sdp_causal, "sdp causal");
  m.def("sdp_fp8_causal", &sdp_fp8_causal, "sdp fp8 causal");
  m.def("sdp_non_causal", &sdp_non_causal, "sdp non causal");
  m.def("sdp_fp8_non_causal", &sdp_fp8_non_causal, "sdp fp8 non causal");
  m.def("siglip_sdp_non_causal", &siglip_sdp_non_causal, "siglip sdp non causal");
  m.def("gemma2_sdp", &gemma2_sdp, "gemma2 sdp");
  m.def("gemma2_sdp_causal", &gemma2_sdp_causal, "gemma2 sdp causal");
  m.def("rms_norm", &rms_norm, "fused rms norm");
  m.def("layer_norm", &layer_norm, "fused layer norm");
  m.def("rotary_half_inplaced", &rotary_half_inplaced, "rotary half inplaced");
  m.def("rotary_two_inplaced", &rotary_two_inplaced, "rotary two inplaced");
  m.def("rotary_half_with_cache_inplaced", &rotary_half_with_cache_inplaced, "rotary half with cache inplaced");
  m.def("rotary_two_with_cache_inplaced", &rotary_two_with_cache_inplaced, "rotary two with cache inplaced");
  m.def("mlp_silu_mul_inplaced", &mlp_silu_mul_inplaced, "mlp silu_mul inplaced");
  m.def("quantize_key_value", &quantize_key_value, "quantize key value");
  m.def("dequantize_key_value", &dequantize_key_value, "dequantize key value");
  m.def("repetition_penalty_logits_process_inplaced", &repetition_penalty_logits_process_inplaced, "repetition penalty logits process");
  m.def("attn_softmax_inplaced", &attn_softmax_inplaced, "attention softmax inplaced");
  m.def("moe_group_topk", &moe_group_topk, "moe group topk");
  m.def("moe_softmax_topk", &moe_softmax_topk, "moe softmax topk");

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
