#ifndef KELM_KELM_H
#define KELM_KELM_H

#include <stddef.h>
#include <stdint.h>

/*
 * The client interface of kelmdaemon: graphs, inferences, status, over the service's socket.
 *
 * Results: functions that can fail return 0 (KELM_SUCCESS) or an error: below 0 the service's code,
 * above 0 one of enum kelm_error. kelm_last_error() tells the cause and what to do.
 *
 * Structs: each that is passed in or filled, but for kelm_tensor, begins with `size`, its sizeof as
 * the program was compiled: KELM_INIT(struct kelm_task, task) declares one with the rest zero. Zero
 * is the default of every field. Later versions add fields at the end only.
 *
 * Times: milliseconds unless the name says otherwise. A deadline counts from the call; 0 is the
 * default (10 s; 60 s for graphs and resets), a negative one is KELM_INVALID_ARGUMENT.
 *
 * Threads: any thread may use any handle, but the call that ends a handle must be its last one.
 *
 * Callbacks: run on a thread of the library, some also in kelm_graph_free and kelm_close: hold no
 * lock there that a callback takes. With KELM_CLIENT_DISPATCH they run in kelm_dispatch and
 * kelm_close only. They must be short and must not throw. Calls in them that would wait for the
 * service or end a graph or a client are KELM_INVALID_ARGUMENT; tasks may be started.
 *
 * Memory: what a function takes by pointer is read before it returns, tensors excepted.
 *
 * Text: UTF-8 or plain bytes, ended by NUL. Names in status and snapshots come from other programs:
 * make them safe before a terminal sees them.
 *
 * Forks: a child of fork() must not use its parent's handles; what ends one does nothing there.
 */

#if defined(__cplusplus)
extern "C" {
#endif

#if defined(__GNUC__)
#define KELM_API __attribute__((visibility("default")))
#else
#define KELM_API
#endif

#define KELM_VERSION_MAJOR 1
#define KELM_VERSION_MINOR 0
#define KELM_VERSION_PATCH 0
#define KELM_VERSION_TEXT "1.0.0"

#if defined(__cplusplus)
#define KELM_INIT(type, name) \
    type name = {};           \
    (name).size = sizeof(name)
#else
#define KELM_INIT(type, name) type name = {.size = sizeof(type)}
#endif

/* The errors of the library itself. Those of the service are below 0; kelm_error_name names both.
 */
enum kelm_error {
    KELM_SUCCESS = 0,
    KELM_TIMEOUT = 1,          /* no answer before the deadline; an inference may still run */
    KELM_CONNECTION_LOST = 2,  /* while the call was on its way */
    KELM_NOT_CONNECTED = 3,    /* there is no connection now */
    KELM_CANCELED = 4,         /* taken back before it ran */
    KELM_SYSTEM_ERROR = 5,     /* the operating system refused, or the service talks nonsense */
    KELM_BUSY = 6,             /* a slot, or every slot of a pool, belongs to tasks that run */
    KELM_EXPIRED = 7,          /* the deadline passed before the task was sent; it did not run */
    KELM_INVALID_ARGUMENT = 8, /* a mistake of the caller; nothing was done */
    KELM_OUT_OF_MEMORY = 9
};

struct kelm_client;
struct kelm_graph;
struct kelm_pool;
struct kelm_slot;
struct kelm_status;
struct kelm_snapshots;

/* The version of the library that runs, as 0xMMmmpp, and as text. Static. */
KELM_API uint32_t kelm_version(void);
KELM_API const char* kelm_version_text(void);
/* "KELM_TIMEOUT", "KELM_ERROR_TOO_MANY_TASK" and so on; "unknown" for a number without one. Static.
 */
KELM_API const char* kelm_error_name(int error);
/* What the last failed call of this thread came to, in a line: cause and what to do. Valid until
 * the thread's next call of the library. "" if none failed. */
KELM_API const char* kelm_last_error(void);

/* ---- Connection ------------------------------------------------------------------------------ */

enum kelm_client_flags {
    /* When the connection is lost: connect, register and load the graphs again, as often as needed.
     * Tasks that were on their way end with KELM_CONNECTION_LOST, those that wait in this process
     * are sent then. Graphs given from memory are kept as a copy. */
    KELM_CLIENT_RECONNECT = 1,
    /* Callbacks wait for kelm_dispatch, for programs with an event loop. */
    KELM_CLIENT_DISPATCH = 2
};

struct kelm_client_options {
    uint32_t size;
    uint32_t flags;          /* enum kelm_client_flags */
    const char* socket_path; /* NULL: the usual socket, or the one under $KELM_RUN_DIR */
    const char* name;        /* as others see it, 1 to 31 bytes; NULL: the program's, cut */
    int32_t deadline_ms;     /* of connecting and registering together */
    int32_t reserved;
    /* A thing goes on in another way than wanted, as tensors whose rights could not be narrowed.
     * A callback on the thread that sends the task, also in dispatch mode. NULL: not told. */
    void (*on_warning)(const char* text, void* user);
    /* The connection was lost (up 0) or is there again, graphs loaded (up 1). As callbacks run.
     * Not for the first connection. NULL: not told. */
    void (*on_connection)(int up, void* user);
    void* user; /* for both */
};

/* Connects and registers. NULL options: all defaults. The handle is the caller's, to kelm_close. */
KELM_API int kelm_connect(const struct kelm_client_options* options, struct kelm_client** client);
/* Unregisters (a second at most), ends what is pending with KELM_CONNECTION_LOST, waits for
 * callbacks that run (in dispatch mode runs those that are due), frees the handle. Its graphs must
 * not be used any more but may still be freed. KELM_INVALID_ARGUMENT from a callback: nothing is
 * done. NULL: 0. */
KELM_API int kelm_close(struct kelm_client* client);
KELM_API int kelm_is_connected(const struct kelm_client* client);
/* The service's number for this client; another one after a reconnect. */
KELM_API uint64_t kelm_client_id(const struct kelm_client* client);

/* For poll(): readable while callbacks are due. -1 without KELM_CLIENT_DISPATCH. Not to be closed.
 */
KELM_API int kelm_fd(const struct kelm_client* client);
/* Waits up to timeout_ms for a callback to be due (0: not at all, negative: without limit), then
 * runs those that are. How many ran, or -1 with an error (kelm_last_error). One thread at a time.
 */
KELM_API int kelm_dispatch(struct kelm_client* client, int timeout_ms);

/* ---- Graphs ---------------------------------------------------------------------------------- */

struct kelm_graph_options {
    uint32_t size;
    int32_t deadline_ms;    /* of the load */
    const char* name;       /* as others see it; NULL: that of the file, or "unnamed" */
    const char* tag;        /* picks reserved devices, at most 511 bytes; NULL: shared ones */
    const char* stream_id;  /* the same */
    int32_t subclass;       /* of devices */
    int32_t expect_devices; /* how many would be of use; 0: 1 */
    uint32_t window;        /* tasks sent and not ended, at most; 0: three for each device */
    uint32_t max_waiting;   /* tasks that wait in this process, at most; 0: 65,536 */
};

/* Sizes in bytes. The three last ones are those of the auxiliary blocks. */
struct kelm_graph_info {
    uint32_t size;
    uint32_t window;
    uint64_t id; /* the service's number; another one after a reconnect */
    uint64_t input_bytes;
    uint64_t output_bytes;
    uint64_t time_taken_bytes;
    uint64_t thermal_bytes;
    uint64_t debug_bytes;
};

/* Loads a compiled graph. NULL options: all defaults. The handle is the caller's, to
 * kelm_graph_free. A client's first load starts a thread for its tasks: KELM_SYSTEM_ERROR if there
 * is none to be had. After KELM_TIMEOUT a graph that the service loads late is given up, unless
 * another load or handle has it. */
KELM_API int kelm_graph_from_memory(struct kelm_client* client, const void* bytes, size_t count,
                                    const struct kelm_graph_options* options,
                                    struct kelm_graph** graph);
/* The same; this process reads the file, also at each reconnect. */
KELM_API int kelm_graph_from_file(struct kelm_client* client, const char* path,
                                  const struct kelm_graph_options* options,
                                  struct kelm_graph** graph);
/* The same; the service reads the file, and must have the rights to. Saves sending a large one. */
KELM_API int kelm_graph_from_service_file(struct kelm_client* client, const char* path,
                                          const struct kelm_graph_options* options,
                                          struct kelm_graph** graph);
KELM_API int kelm_graph_get_info(const struct kelm_graph* graph, struct kelm_graph_info* info);
/* Ends the graph's waiting tasks with KELM_CANCELED, waits up to 10 s for those that were sent and
 * for callbacks that run (KELM_TIMEOUT if that is not enough), tells the service, frees the handle,
 * also after an error. Callbacks that are due in dispatch mode still come. Tasks that have timed
 * out and still run are waited for, too, up to 10 s: their slots come back then. With a graph that
 * others use the service drops this client's other tasks, too; they are sent again, which may take
 * 10 s more. KELM_INVALID_ARGUMENT from a callback: nothing is done. NULL: 0. */
KELM_API int kelm_graph_free(struct kelm_graph* graph);

/* ---- Tensors --------------------------------------------------------------------------------- */

/* Slots of memory that the service can reach, each with an input, an output and an auxiliary buffer
 * (0 bytes: none). Made when first needed, at most max_slots (0: 1,024) at a time, used again. A
 * pool belongs to no client. */
KELM_API int kelm_pool_create(size_t input_bytes, size_t output_bytes, size_t aux_bytes,
                              size_t max_slots, struct kelm_pool** pool);
/* Slots that are in use stay valid. NULL is allowed. */
KELM_API void kelm_pool_free(struct kelm_pool* pool);
/* A free slot, the caller's until kelm_slot_release; KELM_BUSY if there is none, KELM_SYSTEM_ERROR
 * if /dev/shm has no room for it. What it holds is what was there before, zeros at first. */
KELM_API int kelm_pool_acquire(struct kelm_pool* pool, struct kelm_slot** slot);
/* Gives the slot back. May be called while its task runs: the pool keeps it until the task has
 * ended. NULL is allowed. */
KELM_API void kelm_slot_release(struct kelm_slot* slot);
/* The mapped buffers, valid until the release; NULL for one of 0 bytes. */
KELM_API void* kelm_slot_input(struct kelm_slot* slot, size_t* bytes);
KELM_API void* kelm_slot_output(struct kelm_slot* slot, size_t* bytes);
KELM_API void* kelm_slot_aux(struct kelm_slot* slot, size_t* bytes);

enum kelm_tensor_kind {
    KELM_TENSOR_NONE = 0,
    KELM_TENSOR_DESCRIPTOR = 1,   /* `fd`, above 0, is sent along and stays the caller's */
    KELM_TENSOR_SHARED_MEMORY = 2 /* `name` of a POSIX shared memory object, at most 63 bytes */
};

/* Memory of the program's own, to stay as it is until the task has ended; after KELM_TIMEOUT until
 * the connection is closed. */
struct kelm_tensor {
    int32_t kind; /* enum kelm_tensor_kind */
    int32_t fd;
    const char* name;
    uint64_t bytes;
};

/* ---- Inference ------------------------------------------------------------------------------- */

enum kelm_aux_flags { KELM_AUX_TIME_TAKEN = 1, KELM_AUX_THERMAL = 2, KELM_AUX_DEBUG = 4 };

/* How a task ended. Times are 0 where it did not come so far. */
struct kelm_result {
    uint32_t size;
    int32_t error;    /* 0, the service's code, or enum kelm_error */
    const char* text; /* cause and what to do; "": no error; as long as the callback, or, of
                         kelm_infer, until the thread's next call */
    uint64_t ticket;
    uint64_t cookie;      /* the task's */
    uint64_t task_id;     /* the service's number */
    uint64_t waited_ns;   /* in this process, before it was sent */
    uint64_t accepted_ns; /* from the sending to the service's word that it has the task */
    uint64_t total_ns;    /* from the call to the end */
};

/* Runs exactly once a task that was taken; see Callbacks. */
typedef void (*kelm_done_fn)(const struct kelm_result* result, void* user);

struct kelm_task {
    uint32_t size;
    int32_t deadline_ms;    /* to the end of the task, waiting included */
    struct kelm_slot* slot; /* input, output and, if flags ask, aux; or NULL and the three below */
    struct kelm_tensor input;
    struct kelm_tensor output;
    struct kelm_tensor aux;
    uint32_t aux_flags; /* enum kelm_aux_flags: which blocks the service is to fill in */
    uint32_t priority;  /* 0 to 15; of the tasks that wait here the highest is sent first */
    uint64_t cookie;    /* comes back with the result */
    kelm_done_fn done;  /* NULL: the end is not told */
    void* user;         /* for `done` */
};

/* Starts a task; beyond the graph's window it waits in this process. While the service reads
 * nothing this may wait, until the deadline, a second at least; the connection is given up then.
 * `ticket` (may be NULL) names the task. An error means that it was not taken, and `done` will not
 * run: KELM_BUSY if its slot may still be written into or max_waiting is reached, KELM_SYSTEM_ERROR
 * if a descriptor is not open, KELM_NOT_CONNECTED if the connection is lost for good. */
KELM_API int kelm_infer_async(struct kelm_graph* graph, const struct kelm_task* task,
                              uint64_t* ticket);
/* The same, and waits for the end, which it returns; `result` may be NULL, `done` is not called.
 * Not from a callback. */
KELM_API int kelm_infer(struct kelm_graph* graph, const struct kelm_task* task,
                        struct kelm_result* result);
/* Takes a task back that waits here or in the service: `canceled` 1, and the task ends with
 * KELM_CANCELED. 0: it has ended or runs on. Waits for the service if it has the task, for at most
 * 10 s; from a callback only tasks that wait here are taken back. `canceled` may be NULL. */
KELM_API int kelm_cancel(struct kelm_graph* graph, uint64_t ticket, int* canceled);

/* The blocks of an auxiliary buffer; pointers into it. */
struct kelm_aux {
    uint32_t size;
    uint32_t time_taken_count;
    const float* time_taken_ms; /* of each layer; NULL: not asked for, as below */
    const void* thermal;
    uint64_t thermal_bytes;
    const void* debug;
    uint64_t debug_bytes;
    float celsius; /* NaN if there is none */
    uint32_t reserved;
};

/* Finds the blocks that `aux_flags` asked for in `bytes` of an auxiliary buffer. A block that is
 * cut off has the bytes that are there. KELM_INVALID_ARGUMENT if `buffer` is not aligned to a
 * float. */
KELM_API int kelm_aux_decode(const struct kelm_graph_info* info, uint32_t aux_flags,
                             const void* buffer, size_t bytes, struct kelm_aux* aux);

/* ---- Devices and status ---------------------------------------------------------------------- */

/* Resets a device of this number; all for KELM_ALL_DEVICES. 0 as deadline: the default. */
#define KELM_ALL_DEVICES UINT32_MAX
KELM_API int kelm_device_reset(struct kelm_client* client, uint32_t device, int32_t deadline_ms);

/* Rates are per second. Counts are the true ones, rows what an answer has room for. */
struct kelm_status_info {
    uint32_t size;
    float rate; /* inferences of the whole service */
    uint32_t device_count, graph_count, client_count;
    uint32_t device_rows, graph_rows, client_rows;
    const char* device_scheduler;
    const char* task_scheduler;
};
struct kelm_device_row {
    uint32_t size;
    uint32_t id;
    const char* name;
    const char* graph; /* resident now; "" for none */
    float rate;
    float celsius;
    int32_t subclass;
    int32_t reserved;
};
struct kelm_graph_row {
    uint32_t size;
    float rate_in, rate_out;
    uint32_t reserved;
    const char* name;
};
struct kelm_client_row {
    uint32_t size;
    float rate;
    const char* name;
};

/* What the service is doing now. The handle is the caller's, to kelm_status_free; texts live as
 * long. */
KELM_API int kelm_status_query(struct kelm_client* client, int32_t deadline_ms,
                               struct kelm_status** status);
KELM_API void kelm_status_free(struct kelm_status* status);
KELM_API int kelm_status_get_info(const struct kelm_status* status, struct kelm_status_info* info);
/* KELM_INVALID_ARGUMENT for a row that is not there. */
KELM_API int kelm_status_get_device(const struct kelm_status* status, uint32_t row,
                                    struct kelm_device_row* device);
KELM_API int kelm_status_get_graph(const struct kelm_status* status, uint32_t row,
                                   struct kelm_graph_row* graph);
KELM_API int kelm_status_get_client(const struct kelm_status* status, uint32_t row,
                                    struct kelm_client_row* client);

/* ---- Snapshots ------------------------------------------------------------------------------- */

/* What the service streams at least every five seconds. A connection of its own, without a client.
 */
struct kelm_snapshot_info {
    uint32_t size;
    uint32_t device_rows, graph_rows, client_rows;
    uint32_t graph_count, client_count;
    uint64_t virtual_mb, resident_mb, shared_mb; /* of the service's process */
    uint64_t total_mb;                           /* of the machine */
};
/* A graph on a device, now or, with a time of unload, before. Times are HH:MM:SS. */
struct kelm_residency {
    uint32_t size;
    float rate;
    const char* graph;
    const char* loaded;
    const char* unloaded; /* "" for one that is there now */
    uint64_t inferences;  /* on this device since the load */
};
struct kelm_device_snapshot {
    uint32_t size;
    uint32_t id;
    float celsius;
    int32_t throttling_level;
    uint32_t current_rows, previous_rows; /* of kelm_snapshots_get_residency: current ones first */
};
struct kelm_graph_snapshot {
    uint32_t size;
    uint32_t devices; /* that run it */
    uint64_t id;
    const char* name;
    float rate_in, rate_out;
    uint64_t inferences;
    uint64_t waiting_tasks;
    uint32_t client_count;
    uint32_t reserved;
};
struct kelm_client_snapshot {
    uint32_t size;
    uint16_t api_major, api_minor;
    uint64_t id;
    const char* name;
    uint64_t inferences;
    uint64_t waiting_tasks;
};

/* The path is that of kelm_snapshot.sock, no client's. NULL: the usual one, or the one under
 * $KELM_RUN_DIR. The handle is the caller's. */
KELM_API int kelm_snapshots_open(const char* socket_path, int32_t deadline_ms,
                                 struct kelm_snapshots** snapshots);
/* Waits for the next one; the functions below then read it. After KELM_TIMEOUT (0: 15 s) call
 * again; after KELM_CONNECTION_LOST open again. Read on: the service hangs up on a reader that
 * lags. One thread at a time for this and the functions below. */
KELM_API int kelm_snapshots_next(struct kelm_snapshots* snapshots, int32_t deadline_ms,
                                 struct kelm_snapshot_info* info);
/* For poll(): readable when a part of a snapshot has come. Not to be closed. */
KELM_API int kelm_snapshots_fd(const struct kelm_snapshots* snapshots);
/* Ends the wait in progress, and every later one, with KELM_CANCELED. From any thread. */
KELM_API void kelm_snapshots_interrupt(struct kelm_snapshots* snapshots);
KELM_API void kelm_snapshots_close(struct kelm_snapshots* snapshots);
/* Rows of the latest snapshot; texts live until the next one. KELM_INVALID_ARGUMENT for a row that
 * is not there. */
KELM_API int kelm_snapshots_get_device(const struct kelm_snapshots* snapshots, uint32_t row,
                                       struct kelm_device_snapshot* device);
KELM_API int kelm_snapshots_get_residency(const struct kelm_snapshots* snapshots,
                                          uint32_t device_row, uint32_t row,
                                          struct kelm_residency* residency);
KELM_API int kelm_snapshots_get_graph(const struct kelm_snapshots* snapshots, uint32_t row,
                                      struct kelm_graph_snapshot* graph);
KELM_API int kelm_snapshots_get_client(const struct kelm_snapshots* snapshots, uint32_t row,
                                       struct kelm_client_snapshot* client);

#if defined(__cplusplus)
}
#endif

#endif
