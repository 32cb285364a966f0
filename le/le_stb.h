// stb_image, and with LE_STB_WRITE stb_image_write too (LE_STB_WRITE_ONLY: that alone), with the
// warnings their code trips silenced. The includer defines stb's own configuration macros
// (STB_IMAGE_IMPLEMENTATION, STB_IMAGE_STATIC, STBI_ONLY_JPEG, ...) before including this file.
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#pragma GCC diagnostic ignored "-Wsign-compare"
#pragma GCC diagnostic ignored "-Wunused-but-set-variable"
#endif
#if !defined(LE_STB_WRITE_ONLY)
#include <stb_image.h>
#endif
#if defined(LE_STB_WRITE) || defined(LE_STB_WRITE_ONLY)
#include <stb_image_write.h>
#endif
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
