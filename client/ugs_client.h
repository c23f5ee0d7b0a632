/* Reporting to a KorvaneUGS server, from C and from every language that calls C. C++ has UgsClient.h.
 *
 *   ugs_usage* usage = ugs_usage_new("hall-7");
 *   ugs_client* client = ugs_open("10.0.0.5", "public.pem", 30000);
 *   ugs_usage_add_camera(usage, "rtsp://10.0.0.9/1");
 *   ugs_usage_set_count(usage, "MaxCameras", 4);
 *   if (ugs_report(client, usage) != 0) puts(ugs_last_error_text(client));
 *
 * Or let a ugs_reporter do it over and over.
 *
 * Strings are UTF-8 and end with NUL; the library copies what it keeps. What a call is given by pointer must
 * not be NULL unless it says so: then the call fails, with a text. A call that fails returns -1 or NULL, and
 * ugs_last_error says why. With a NULL client, usage or reporter it says again why this thread's last call
 * failed that has no client, if one did: probably the one that should have made it.
 *
 * The library's threads block all signals. Neither clients nor reporters survive a fork(2) or daemon(3): make
 * them afterwards. In the child their calls fail with a text, and ugs_close and ugs_reporter_stop return at
 * once. Do not unload the library. */
#ifndef UGS_CLIENT_C_API
#define UGS_CLIENT_C_API

#include <stddef.h>

#if defined(__GNUC__)
#define UGS_C_API __attribute__((visibility("default")))
#else
#define UGS_C_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The version of this interface that is linked, as "1.0". Any thread. */
UGS_C_API const char* ugs_version(void);

typedef enum ugs_error {
  UGS_OK,
  UGS_NO_SUCH_HOST,  /* the name does not resolve, or the resolver does not answer */
  UGS_NOT_CONNECTED, /* nobody accepts a connection, or descriptors or memory are lacking for one */
  UGS_NO_ANSWER,     /* the request was sent, and no answer came in time or before the connection was lost */
  UGS_REFUSED,       /* the server answered, but did not count; its log says why */
  UGS_CANNOT_SEAL,   /* the key cannot encrypt */
  UGS_BAD_USAGE      /* an argument is wrong, or what was to be reported cannot be */
} ugs_error;

/* ---- What one instance is using. One thread at a time. ----
 *
 * A usage of which one call failed cannot be reported: that fails with the same text. So only the result of a
 * report need be looked at. */

typedef struct ugs_usage ugs_usage;

/* With layout "v6", no camera and all counts 0. `id` is never empty; with the cameras, in order, it is by
 * what the server knows the instance. The caller frees what is returned. */
UGS_C_API ugs_usage* ugs_usage_new(const char* id);

/* From a document as docs/protocol.md describes it; counts that it leaves out are 0. Refuses members and
 * counts that its layout does not know. The caller frees what is returned. */
UGS_C_API ugs_usage* ugs_usage_parse(const char* json);

/* Each returns 0 or -1. */
UGS_C_API int ugs_usage_set_container(ugs_usage* usage, const char* container); /* information only */
UGS_C_API int ugs_usage_set_layout(ugs_usage* usage, const char* layout);       /* "legacy", "v4" to "v6" */
UGS_C_API int ugs_usage_add_camera(ugs_usage* usage, const char* url);          /* at least one is needed */

/* `name` is a JSON key as "MaxCameras"; one that the layout does not carry is refused when it is reported.
 * `count` is from 0 to 4294967295. Returns 0 or -1. */
UGS_C_API int ugs_usage_set_count(ugs_usage* usage, const char* name, long count);

UGS_C_API void ugs_usage_free(ugs_usage* usage); /* NULL is allowed */

/* ---- One instance's connection. One thread at a time, except for ugs_interrupt and ugs_get_counters. ----
 */

typedef struct ugs_client ugs_client;

/* Since a client or reporter was made. Later versions may use the reserved fields. */
typedef struct ugs_counters {
  unsigned long sent;       /* requests of any kind */
  unsigned long counted;    /* answered 0 */
  unsigned long refused;    /* answered 2 */
  unsigned long unanswered; /* sent, and not answered */
  unsigned long reconnects; /* connections made after the first */
  long last_counted;        /* when a report was last counted, in seconds since 1970; 0 if none was */
  long reserved[4];
} ugs_counters;

/* `server` is HOST or HOST:PORT (port 9304 by default). `key` is the server's public RSA key: PEM text or the
 * name of a file that holds it, which is read again after a refusal. `timeout_ms` is how long a call waits
 * for its answer, in milliseconds: 30000 is usual, -1 means for ever. Does not block: connects in the
 * background, and again whenever the connection is lost. The caller closes what is returned. */
UGS_C_API ugs_client* ugs_open(const char* server, const char* key, long timeout_ms);

/* Each of these sends one request and waits for the answer, for at most the time-out. Returns the server's
 * reply code: 0 counted, 1 the answer to a greeting, 2 refused (then ugs_last_error is UGS_REFUSED). Returns
 * -1 without an answer, or if nothing was sent. */
UGS_C_API int ugs_greet(ugs_client* client); /* 1: the server is there and has our key */
UGS_C_API int ugs_report(ugs_client* client, const ugs_usage* usage);
/* `document` is sealed and sent as it is, whatever it holds; `size` is in bytes. */
UGS_C_API int ugs_send_document(ugs_client* client, const char* document, size_t size);
/* `payload` is sent as it is: it was sealed elsewhere. */
UGS_C_API int ugs_send_sealed(ugs_client* client, const char* payload, size_t size);
/* Reports that `usage` has ended: all counts 0, so that the server's sums fall now, not after 120 s. */
UGS_C_API int ugs_sign_off(ugs_client* client, const ugs_usage* usage);

/* Any thread. Makes the call that is waiting, or else the next one, return -1 at once. */
UGS_C_API void ugs_interrupt(ugs_client* client);

/* Any thread; its failure is the thread's, as if it had no client. Returns 0 or -1. */
UGS_C_API int ugs_get_counters(const ugs_client* client, ugs_counters* counters);

/* Why the client's last call returned -1 or 2; UGS_OK and "" if it did not. The text is for people, and valid
 * until the next call with the client. With NULL: of this thread's last failure of a call that has no client
 * (of ugs_open and usages and reporters); its text is valid until the next such failure. */
UGS_C_API ugs_error ugs_last_error(const ugs_client* client);
UGS_C_API const char* ugs_last_error_text(const ugs_client* client);

/* Does not wait. NULL is allowed. */
UGS_C_API void ugs_close(ugs_client* client);

/* ---- Reports once a period, on a thread of its own. Any thread, except where it says otherwise. ---- */

typedef struct ugs_reporter ugs_reporter;

/* Hears how each report ended: the reply code, or -1 without one; an error, and a text that is valid during
 * the call. Called on the reporter's thread. It may call anything for its reporter but ugs_reporter_sign_off,
 * and must not throw. In the child of a fork that lives for a second it hears, on a thread of its own, that
 * nothing is reported there. */
typedef void (*ugs_listener)(void* context, int code, ugs_error error, const char* text);

/* `server` and `key` as for ugs_open. `usage` is copied. `period_ms` is from 1000 to 118000; the server
 * forgets an instance after 120 s, and with a period from 10 to 75 s and a time-out of 30 s one lost report
 * never costs the instance. The first report comes at a random moment of the first period; after a request
 * without an answer comes another, fresh one, after a random pause. `listener` may be NULL; `context` is
 * handed to it, perhaps before the call has returned. The caller stops what is returned. */
UGS_C_API ugs_reporter* ugs_reporter_start(const char* server, const char* key, const ugs_usage* usage,
                                           long period_ms, long timeout_ms, ugs_listener listener,
                                           void* context);

/* Reports a copy of `usage` at once, and from then on. Returns 0 or -1; the listener hears how it ended. */
UGS_C_API int ugs_reporter_update(ugs_reporter* reporter, const ugs_usage* usage);

/* Sends a last report as ugs_sign_off does, and ends the reporting. Waits for its answer, and before that for
 * a report in flight, each for the time-out at most. One thread, and not the listener. Returns the reply code
 * or -1. ugs_reporter_stop is still to be called. */
UGS_C_API int ugs_reporter_sign_off(ugs_reporter* reporter);

/* Ends the reporting without waiting: a sign-off that waits in another thread returns -1 at once. NULL is
 * allowed. ugs_reporter_stop is still to be called. */
UGS_C_API void ugs_reporter_interrupt(ugs_reporter* reporter);

UGS_C_API int ugs_reporter_get_counters(const ugs_reporter* reporter, ugs_counters* counters); /* 0 or -1 */

/* Ends the reporting and frees the reporter. Gives up a report in flight, and does not wait for the network.
 * When it has returned, the listener is not called any more, unless it was the listener that called it. NULL
 * is allowed. */
UGS_C_API void ugs_reporter_stop(ugs_reporter* reporter);

#ifdef __cplusplus
}
#endif

#endif
