/* A minimal C host: links against the installed le_core and exercises the flat interface. */
#include <stdio.h>
#include <string.h>

#include <le/le.h>

int main(void) {
  if (le_host_kp_rows() != 21) {
    fprintf(stderr, "unexpected keypoint rows %d\n", le_host_kp_rows());
    return 1;
  }
  if (strcmp(le_last_error(), "") != 0) {
    fprintf(stderr, "fresh thread has an error: %s\n", le_last_error());
    return 1;
  }
  printf("le_core host ok\n");
  return 0;
}
