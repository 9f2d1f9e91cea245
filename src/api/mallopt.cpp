// mallopt: the routing of 1 to 64-byte requests, and the probe that identifies the library.
// Touches nothing but the route bytes, never initialises and never sets errno; a call made
// before the first allocation is overwritten by the initialisation's default routing.
#include "api/entry_names.h"
#include "small/small_class_table.h"
#include "state/heap_state.h"
#include "tarnheap.h"

using namespace tarnheap;

extern "C" TARNHEAP_EXPORT int TARNHEAP_ENTRY(mallopt)(int option, int value) {
    if (option == TARNHEAP_M_ROUTING) {
        const route_table& routes = value == TARNHEAP_ROUTING_FINE ? FINE_ROUTES : COARSE_ROUTES;
        for (unsigned j = 0; j < SMALL_CLASS_COUNT; ++j)
            heap_state.small_class_head[j].route = routes.route[j];
        return 1;
    }
    if (option == TARNHEAP_M_PROBE && value == TARNHEAP_PROBE_VALUE) return TARNHEAP_PROBE_ANSWER;
    return 0;
}
