#undef LTTNG_UST_TRACEPOINT_PROVIDER
#define LTTNG_UST_TRACEPOINT_PROVIDER quorvex_bench
#undef LTTNG_UST_TRACEPOINT_INCLUDE
#define LTTNG_UST_TRACEPOINT_INCLUDE "bench/peers/LttngEvents.h"

#if !defined(QUORVEX_BENCH_LTTNG_EVENTS_H) || defined(LTTNG_UST_TRACEPOINT_HEADER_MULTI_READ)
#define QUORVEX_BENCH_LTTNG_EVENTS_H

#include <lttng/tracepoint.h>

LTTNG_UST_TRACEPOINT_EVENT(quorvex_bench, enter, LTTNG_UST_TP_ARGS(unsigned, function),
                           LTTNG_UST_TP_FIELDS(lttng_ust_field_integer(unsigned, function, function)))
LTTNG_UST_TRACEPOINT_EVENT(quorvex_bench, leave, LTTNG_UST_TP_ARGS(unsigned, function),
                           LTTNG_UST_TP_FIELDS(lttng_ust_field_integer(unsigned, function, function)))

#endif

#include <lttng/tracepoint-event.h>
