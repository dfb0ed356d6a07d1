// RMS and layer normalisation on the CPU (common/params/norm.h).
#pragma once

#include "common/params/norm.h"

namespace vorta::cpu {

template <typename T>
void rms_norm(const NormParams<T>& p);

template <typename T>
void layer_norm(const NormParams<T>& p);  // weight and bias may be null

}  // namespace vorta::cpu
