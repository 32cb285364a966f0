/* A minimal C host: links against the installed le_core. With a bundle argument it renders and
 * pastes every drive frame through the director and checks the RGBA output. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <le/le.h>

int main(int argc, char** argv) {
  if (le_host_kp_rows() != 21 || strcmp(le_last_error(), "") != 0) {
    fprintf(stderr, "bad fresh state\n");
    return 1;
  }
  if (le_create(NULL, "b1", 0, NULL) != NULL ||
      strcmp(le_last_error(), "le_create: NULL bundle_dir/model_key") != 0) {
    fprintf(stderr, "null bundle not refused: %s\n", le_last_error());
    return 1;
  }
  if (argc < 2) {
    printf("le_core host ok\n");
    return 0;
  }
  le_ctx* ctx = le_create(argv[1], argc > 2 ? argv[2] : "b1", 0, NULL);
  if (!ctx) {
    fprintf(stderr, "%s\n", le_last_error());
    return 1;
  }
  size_t bytes = (size_t)le_width(ctx) * (size_t)le_height(ctx) * 4;
  unsigned char* rgba = malloc(bytes);
  int ok = rgba != NULL;
  for (int i = 0; ok && i < le_drive_frames(ctx); ++i) {
    if (!le_render_drive_rgba(ctx, i, rgba, bytes)) {
      fprintf(stderr, "frame %d: %s\n", i, le_last_error());
      ok = 0;
    } else if (rgba[3] != 255 || rgba[bytes - 1] != 255) {
      fprintf(stderr, "frame %d: alpha not opaque\n", i);
      ok = 0;
    }
  }
  if (ok) printf("le_core host rendered %d frames of %dx%d\n", le_drive_frames(ctx), le_width(ctx), le_height(ctx));
  free(rgba);
  le_destroy(ctx);
  return ok ? 0 : 1;
}
