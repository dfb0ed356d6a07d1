# The CUDA backend: torch-free kernels under csrc/cuda/, one operator group
# per folder (csrc/cuda/common/ holds shared device code and is no group).
#
# Included before find_package(Torch): torch's own CUDA configuration reads
# the toolkit root, the nvrtc library and the architecture list set here.

set(CMAKE_CUDA_STANDARD 17)
set(CMAKE_CUDA_STANDARD_REQUIRED ON)
set(CMAKE_CUDA_RUNTIME_LIBRARY Shared)

# torch turns VORTA_CUDA_ARCHS into -gencode flags for every CUDA target; left
# to itself it would add every architecture it was built for.
set(_vorta_torch_archs "")
foreach(_arch IN LISTS VORTA_CUDA_ARCHS)
  if(NOT _arch MATCHES "^([0-9]+)([0-9])([a-z]?)$")
    message(FATAL_ERROR "VORTA_CUDA_ARCHS: '${_arch}' is not an architecture such as 80 or 90a")
  endif()
  list(APPEND _vorta_torch_archs "${CMAKE_MATCH_1}.${CMAKE_MATCH_2}${CMAKE_MATCH_3}")
endforeach()
set(ENV{TORCH_CUDA_ARCH_LIST} "${_vorta_torch_archs}")

set(CMAKE_CUDA_ARCHITECTURES ${VORTA_CUDA_ARCHS})
enable_language(CUDA)
# torch warns about, then ignores, a global architecture list.
unset(CMAKE_CUDA_ARCHITECTURES)
unset(CMAKE_CUDA_ARCHITECTURES CACHE)

# torch's FindCUDA takes the toolkit root from the nvcc on the PATH, which may
# be a wrapper script outside the toolkit; the compiler check knows the real one.
if(NOT CUDA_TOOLKIT_ROOT_DIR)
  set(CUDA_TOOLKIT_ROOT_DIR "${CMAKE_CUDA_COMPILER_TOOLKIT_ROOT}" CACHE PATH "CUDA toolkit root")
endif()
# torch wants nvrtc; a minimal toolkit lacks it, torch's wheel dependencies have it.
find_library(CUDA_nvrtc_LIBRARY NAMES nvrtc libnvrtc.so.13 libnvrtc.so.12 NAMES_PER_DIR
  HINTS "${CUDA_TOOLKIT_ROOT_DIR}/lib64" "${CUDA_TOOLKIT_ROOT_DIR}/lib"
        "${VORTA_TORCH_DIR}/../nvidia/cu13/lib" "${VORTA_TORCH_DIR}/../nvidia/cuda_nvrtc/lib")

set(VORTA_WITH_CUDA ON)
message(STATUS "vorta_addons: building the CUDA backend for ${VORTA_CUDA_ARCHS} "
               "(torch ${VORTA_TORCH_VERSION}, CUDA ${CMAKE_CUDA_COMPILER_VERSION}, C++${CMAKE_CXX_STANDARD})")

option(VORTA_CUDA_PTXAS_VERBOSE "Print each CUDA kernel's registers, shared memory and spills" OFF)

# Builds vorta_cuda_kernels from csrc/cuda and links it into `module`, which
# gets VORTA_WITH_CUDA=1 and VORTA_CUDA_<GROUP>=1 for each group with sources.
function(vorta_add_cuda_backend module)
  set(_root "${PROJECT_SOURCE_DIR}/csrc/cuda")
  file(GLOB_RECURSE _sources CONFIGURE_DEPENDS "${_root}/*.cu" "${_root}/*.cpp")
  set(_groups "")
  foreach(_src IN LISTS _sources)
    file(RELATIVE_PATH _rel "${_root}" "${_src}")
    if(_rel MATCHES "^([a-z0-9_]+)/" AND NOT CMAKE_MATCH_1 STREQUAL "common")
      string(TOUPPER "${CMAKE_MATCH_1}" _group)
      list(APPEND _groups "${_group}")
    endif()
  endforeach()
  list(REMOVE_DUPLICATES _groups)
  list(TRANSFORM _groups PREPEND "VORTA_CUDA_" OUTPUT_VARIABLE _flags)
  list(TRANSFORM _flags APPEND "=1")
  message(STATUS "vorta_addons: CUDA kernel groups: ${_groups}")

  add_library(vorta_cuda_kernels STATIC ${_sources})
  target_include_directories(vorta_cuda_kernels PUBLIC "${PROJECT_SOURCE_DIR}/csrc")
  target_link_libraries(vorta_cuda_kernels PUBLIC CUDA::cudart)
  # The -gencode flags come from torch (TORCH_CUDA_ARCH_LIST above).
  set_target_properties(vorta_cuda_kernels PROPERTIES CUDA_ARCHITECTURES OFF)
  # As on the CPU, no contraction into FMA: every rounding is the one the code
  # states (kernels write fmaf where they mean it).
  target_compile_options(vorta_cuda_kernels PRIVATE
    $<$<COMPILE_LANGUAGE:CUDA>:--fmad=false -lineinfo -Xfatbin=-compress-all>
    $<$<AND:$<COMPILE_LANGUAGE:CUDA>,$<BOOL:${VORTA_CUDA_PTXAS_VERBOSE}>>:-Xptxas=-v>)
  target_compile_definitions(vorta_cuda_kernels PUBLIC VORTA_WITH_CUDA=1 ${_flags})
  target_link_libraries(${module} PRIVATE vorta_cuda_kernels)
endfunction()
