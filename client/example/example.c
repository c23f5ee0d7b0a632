/* An instance that reports at once, then every 30 s until its input ends, and signs off. To build it:
 *   cc -std=c89 example.c $(pkg-config --cflags --libs ugs-client) */

#include <stdio.h>
#include <ugs/ugs_client.h>

static void heard(void* context, int code, ugs_error error, const char* text) {
  (void)context;
  (void)error;
  if (code != 0) fprintf(stderr, "%s\n", text);
}

int main(int argc, char** argv) {
  ugs_usage* usage;
  ugs_client* client;
  ugs_reporter* reporter = NULL;
  int code;

  if (argc != 3) {
    fputs("Usage: example SERVER PUBLIC_KEY_FILE\n", stderr);
    return 2;
  }
  client = ugs_open(argv[1], argv[2], 30000);
  usage = ugs_usage_new("example-c");
  ugs_usage_add_camera(usage, "rtsp://127.0.0.1/1");
  ugs_usage_set_count(usage, "MaxCameras", 1);
  code = ugs_report(client, usage);
  puts(code == 0 ? "counted" : ugs_last_error_text(client));
  ugs_close(client);

  if (code == 0) {
    reporter = ugs_reporter_start(argv[1], argv[2], usage, 30000, 30000, heard, NULL);
    while (getchar() != EOF) continue;
    code = ugs_reporter_sign_off(reporter);
    puts(code == 0 ? "signed off" : ugs_last_error_text(NULL));
  }
  ugs_reporter_stop(reporter);
  ugs_usage_free(usage);
  return code == 0 ? 0 : 1;
}
