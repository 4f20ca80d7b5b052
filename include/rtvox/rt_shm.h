/*
 * rtvox backplane access, NVMe drives, shared-memory regions and PCIe SSDs.
 */
#ifndef RTVOX_RT_SHM_H
#define RTVOX_RT_SHM_H

#include <stdint.h>

#include "rtvox/rtvox.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* RTVOX_RT_SHM_H */
