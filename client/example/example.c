/* An instance that reports once. With CMake: this directory's CMakeLists.txt. Without:
 *   cc -std=c89 example.c $(pkg-config --cflags --libs ugs-client)
 * Usage: example SERVER PUBLIC_KEY_FILE */

#include <stdio.h>
#include <ugs/ugs_client.h>

int main(int argc, char** argv) {
  ugs_usage* usage = ugs_usage_new("example-c");
  ugs_client* client = argc == 3 ? ugs_open(argv[1], argv[2], 30000) : NULL;
  int code;

  ugs_usage_add_camera(usage, "rtsp://127.0.0.1/1");
  ugs_usage_set_count(usage, "MaxCameras", 1);
  code = ugs_report(client, usage);
  puts(code == 0 ? "counted" : ugs_last_error_text(client));
  ugs_close(client);
  ugs_usage_free(usage);
  return code == 0 ? 0 : 1;
}
