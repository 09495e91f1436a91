/* The peer of `qor pipeline` in bench/run_pipeline_bench.sh: libvips builds the same RGBA8 image
 * from coordinates, (x & 255, y & 255, (x + y) & 255, 255), reduces it by an integer factor with
 * vips_shrink (a box filter: the area mean for integer factors) and sinks it into vips_avg, all
 * as one lazy pipeline, so that neither image is ever held whole. Prints the wall time and the
 * mean, which must equal the mean that `qor pipeline` prints.
 *
 * With the word "black" as fourth argument the input is vips_black's four zero bands instead: the
 * cheapest input vips can make, so that the figure is the cost of the reduction and the sink alone.
 *
 * Usage: vips_reduce WIDTH HEIGHT FACTOR [black] (threads: VIPS_CONCURRENCY).
 *
 * Built by the script against the installed runtime library alone (the Debian package of its
 * headers is large), so the few entry points used are declared here. */

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

typedef struct _VipsImage VipsImage;
extern int vips_init(const char *argv0);
extern const char *vips_error_buffer(void);
extern int vips_xyz(VipsImage **out, int width, int height, ...);
extern int vips_black(VipsImage **out, int width, int height, ...);
extern int vips_extract_band(VipsImage *in, VipsImage **out, int band, ...);
extern int vips_add(VipsImage *left, VipsImage *right, VipsImage **out, ...);
extern int vips_bandjoin2(VipsImage *in1, VipsImage *in2, VipsImage **out, ...);
extern int vips_andimage_const1(VipsImage *in, VipsImage **out, double c, ...);
extern int vips_bandjoin_const1(VipsImage *in, VipsImage **out, double c, ...);
extern int vips_cast_uchar(VipsImage *in, VipsImage **out, ...);
extern int vips_shrink(VipsImage *in, VipsImage **out, double hshrink, double vshrink, ...);
extern int vips_avg(VipsImage *in, double *out, ...);
extern int vips_image_get_width(const VipsImage *image);
extern int vips_image_get_height(const VipsImage *image);
extern void g_object_unref(void *object);

static int fail(const char *what) {
    fprintf(stderr, "vips_reduce: %s: %s\n", what, vips_error_buffer());
    return 1;
}

int main(int argc, char **argv) {
    const int black = argc == 5 && strcmp(argv[4], "black") == 0;
    if (argc != 4 && !black) {
        fprintf(stderr, "usage: vips_reduce WIDTH HEIGHT FACTOR [black]\n");
        return 2;
    }
    const int width = atoi(argv[1]), height = atoi(argv[2]), factor = atoi(argv[3]);
    if (width < 1 || height < 1 || factor < 1) {
        fprintf(stderr, "vips_reduce: sizes and factor must be positive integers\n");
        return 2;
    }
    if (vips_init(argv[0])) return fail("init");

    struct timespec t0, t1;
    clock_gettime(CLOCK_MONOTONIC, &t0);
    VipsImage *xy = NULL, *x = NULL, *y = NULL, *sum = NULL, *xys = NULL, *masked = NULL,
              *rgba = NULL, *bytes = NULL, *small = NULL;
    double mean = 0;
    if (black) {
        if (vips_black(&bytes, width, height, "bands", 4, NULL)) return fail("black");
    } else {
        if (vips_xyz(&xy, width, height, NULL)) return fail("xyz");
        if (vips_extract_band(xy, &x, 0, NULL) || vips_extract_band(xy, &y, 1, NULL))
            return fail("extract_band");
        if (vips_add(x, y, &sum, NULL)) return fail("add");
        if (vips_bandjoin2(xy, sum, &xys, NULL)) return fail("bandjoin");
        if (vips_andimage_const1(xys, &masked, 255.0, NULL)) return fail("andimage");
        if (vips_bandjoin_const1(masked, &rgba, 255.0, NULL)) return fail("bandjoin_const");
        if (vips_cast_uchar(rgba, &bytes, NULL)) return fail("cast");
    }
    if (vips_shrink(bytes, &small, (double)factor, (double)factor, NULL)) return fail("shrink");
    if (vips_avg(small, &mean, NULL)) return fail("avg");
    clock_gettime(CLOCK_MONOTONIC, &t1);

    const double seconds = (double)(t1.tv_sec - t0.tv_sec) + 1e-9 * (double)(t1.tv_nsec - t0.tv_nsec);
    printf("vips (%s): %dx%d shrunk by %d to %dx%d, wall %.3f s, mean %.4f\n", black ? "black" : "pattern", width, height, factor,
           vips_image_get_width(small), vips_image_get_height(small), seconds, mean);
    VipsImage *all[] = {small, bytes, rgba, masked, xys, sum, y, x, xy};
    for (size_t i = 0; i < sizeof all / sizeof all[0]; ++i)
        if (all[i]) g_object_unref(all[i]);
    return 0;
}
