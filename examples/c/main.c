/* Embeds Zonaris from C: a client fed with positions by the application, its callbacks printed.
 * Usage: zonaris-c-example [BASE_URL]   (for example a local zonaris-service) */
#include <stdio.h>

#include <zonaris/zonaris.h>

static void on_log(void* user, const char* line) {
  (void)user;
  printf("log: %s\n", line);
}

static void on_enter(void* user, const char* fence) {
  (void)user;
  printf("entered %s\n", fence ? fence : "(a fence without a name)");
}

int main(int argc, char** argv) {
  zonaris_platform_options options = {0};
  zonaris_callbacks callbacks = {0};
  zonaris_location fix = {52.5200, 13.4050, 1.2, 8.0, 0.0}; /* timestamp 0: now */
  zonaris_client* client = NULL;
  zonaris_status status;

  if (zonaris_abi_version() != ZONARIS_ABI_VERSION) {
    fprintf(stderr, "libzonaris has ABI %d, this program needs %d\n", zonaris_abi_version(),
            ZONARIS_ABI_VERSION);
    return 1;
  }
  options.struct_size = sizeof options;
  options.base_url = argc > 1 ? argv[1] : NULL;
  status = zonaris_init_with_app_key("demo", &options, &client);
  if (status != ZONARIS_STATUS_OK) {
    fprintf(stderr, "%s: %s\n", zonaris_status_text(status), zonaris_last_error());
    return 1;
  }
  callbacks.struct_size = sizeof callbacks;
  callbacks.logLine = on_log;
  callbacks.eventEnterCallback = on_enter;
  zonaris_set_delegate(client, &callbacks);
  zonaris_set_dev_mode(client, 1);
  zonaris_set_tags(client, "{\"tier\":\"gold\"}");
  zonaris_start(client);
  zonaris_push_location(client, &fix, NULL);
  zonaris_stop(client);
  status = zonaris_destroy(client, -1); /* joins every thread of the client */
  printf("zonaris %s from C: client started and destroyed (%s)\n", zonaris_version(),
         zonaris_status_text(status));
  return status == ZONARIS_STATUS_OK ? 0 : 1;
}
