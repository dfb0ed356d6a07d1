// The instruction sets the CPU kernels are built for, and the one in use.
//
// Kernel sources are compiled once per instruction set, with VORTA_ISA naming
// the build: generic (no flags: any x86-64 CPU, aarch64) and, on x86-64, avx2
// (AVX2/FMA/F16C, whose attention kernels also carry AVX-512 forms behind
// target attributes). Each build's code lives in the inline namespace
// vorta::cpu::<isa>, so the builds share no symbol; cpu/dispatch.cpp defines
// the entry points in vorta::cpu and routes each call to one build.
#pragma once

#if defined(VORTA_ISA)
#define VORTA_ISA_BEGIN inline namespace VORTA_ISA {
#define VORTA_ISA_END }
#elif !defined(VORTA_ISA_BEGIN)
#define VORTA_ISA_BEGIN
#define VORTA_ISA_END
#endif

namespace vorta::cpu {

enum class Isa { generic, avx2, avx512 };

// Chosen on first use: the best the CPU reports, or the VORTA_CPU_ISA setting
// (generic, avx2, avx512) where the CPU has it. An unknown setting is fatal.
Isa active_isa();

const char* isa_name(Isa isa);

}  // namespace vorta::cpu
