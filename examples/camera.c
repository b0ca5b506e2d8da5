/* A camera loop: frames are submitted as they come, a few at a time, and their results are checked.
 *   camera GRAPH [FRAMES]
 */
#include <stdio.h>
#include <stdlib.h>

#include "kelm/kelm.h"

enum { kDepth = 4 };

struct frame {
    struct kelm_slot* slot;
    unsigned expected; /* the number of the frame that the slot was submitted with */
};

static unsigned good;

static void check(int error, const char* what) {
    if (error == KELM_SUCCESS) return;
    fprintf(stderr, "%s: %s: %s\n", what, kelm_error_name(error), kelm_last_error());
    exit(1);
}

/* Runs in kelm_dispatch below, on the program's only thread. */
static void frame_done(const struct kelm_result* result, void* user) {
    struct frame* frame = user;
    if (result->error != KELM_SUCCESS) fprintf(stderr, "frame lost: %s\n", result->text);
    if (result->error == KELM_SUCCESS && result->cookie == frame->expected) ++good;
    kelm_slot_release(frame->slot);
    frame->slot = NULL; /* free for the next frame */
}

int main(int argc, char** argv) {
    const unsigned frames = argc > 2 ? (unsigned)atoi(argv[2]) : 100;
    struct frame places[kDepth] = {{NULL, 0}};
    struct kelm_client* client = NULL;
    struct kelm_graph* graph = NULL;
    struct kelm_pool* pool = NULL;
    KELM_INIT(struct kelm_client_options, options);
    KELM_INIT(struct kelm_graph_info, info);
    options.name = "camera";
    options.flags = KELM_CLIENT_DISPATCH;
    check(argc > 1 ? KELM_SUCCESS : KELM_INVALID_ARGUMENT, "usage: camera GRAPH [FRAMES]");
    check(kelm_connect(&options, &client), "connect");
    check(kelm_graph_from_file(client, argv[1], NULL, &graph), "load");
    check(kelm_graph_get_info(graph, &info), "sizes");
    check(kelm_pool_create(info.input_bytes, info.output_bytes, 0, kDepth, &pool), "pool");
    for (unsigned number = 0; number < frames; ++number) {
        struct frame* place = &places[number % kDepth];
        KELM_INIT(struct kelm_task, task);
        while (place->slot != NULL) check(kelm_dispatch(client, -1) < 0, "dispatch");
        check(kelm_pool_acquire(pool, &place->slot), "slot");
        *(unsigned char*)kelm_slot_input(place->slot, NULL) = (unsigned char)number; /* the image */
        place->expected = number;
        task.slot = place->slot;
        task.cookie = number;
        task.done = frame_done;
        task.user = place;
        check(kelm_infer_async(graph, &task, NULL), "submit");
    }
    for (unsigned i = 0; i < kDepth; ++i) {
        while (places[i].slot != NULL) check(kelm_dispatch(client, -1) < 0, "dispatch");
    }
    check(kelm_graph_free(graph), "free");
    kelm_pool_free(pool);
    check(kelm_close(client), "close");
    printf("%u of %u frames\n", good, frames);
    return good == frames ? 0 : 1;
}
