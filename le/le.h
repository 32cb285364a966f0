/* le_core: real-time talking-head rendering engine, flat C interface.
 *
 * Conventions
 * - Every function is callable from C and C++ and never throws.
 * - Failures return null, 0 or -1 and store a message in a per-thread string of the
 *   function's family, read with that family's last-error function (le_last_error for the
 *   context and prior functions). Those strings are never null; "" means no error.
 * - Handles are opaque. Destroy/close functions accept null.
 * - Threads: calls on one handle must not overlap unless a function says otherwise.
 *   Different handles may be used from different threads at once.
 * - Ownership: pointers returned by the library are borrowed; each declaration states
 *   how long they stay valid. Pointers passed in are read during the call only.
 */
#ifndef LE_LE_H
#define LE_LE_H

#include <stddef.h>
#include <stdint.h>

#if defined(LE_BUILDING_CORE)
#define LE_API __attribute__((visibility("default")))
#else
#define LE_API
#endif

#ifdef __cplusplus
namespace le {
/* Keypoint rows per set: 21 keypoints of (x, y, z) float32, 63 values, row-major. */
constexpr int kHostKpRows = 21;
}  // namespace le
extern "C" {
#endif

/* Context family error: the calling thread's last message of the context and prior
 * functions. Owned by the library, valid until the next call of that family on this thread. */
LE_API const char* le_last_error(void);

/* Always 21: keypoint rows per keypoint set. */
LE_API int le_host_kp_rows(void);

/* Resolves bundle (a bundle directory or an ".imx" container, unwrapped once beside it or
 * under LE_IMX_UNWRAP_ROOT) to the bundle directory, written with its terminating zero into
 * out (cap bytes, caller-owned). Returns 1, or -1 on failure with out[0] = 0 (null arguments
 * and cap = 0 store no message). Safe to call from several threads at once. */
LE_API int le_bundle_resolve_handle(const char* bundle, char* out, size_t cap);

/* Writes the path of member (a canonical member name such as "P.f16"; a newer alternative
 * file name is used when only that exists) inside the resolved bundle into out (cap bytes,
 * caller-owned). Returns 1 when that file can be opened, 0 when it cannot (the path is still
 * written), -1 on failure with out[0] = 0. */
LE_API int le_bundle_resolve_member(const char* bundle, const char* member, char* out, size_t cap);

#ifdef __cplusplus
}  /* extern "C" */
#endif

#endif /* LE_LE_H */
