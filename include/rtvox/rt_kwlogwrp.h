/*
 * rtvox event-log submission: message arguments, friendly names and the
 * submission of storage events to the controller's event log.
 */
#ifndef RTVOX_RT_KWLOGWRP_H
#define RTVOX_RT_KWLOGWRP_H

#include <stdint.h>

#include "rtvox/rtvox.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* RTVOX_RT_KWLOGWRP_H */
