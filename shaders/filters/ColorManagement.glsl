// Colour management: draws up to four source images, laid over each other in order by their
// alpha, and converts the colour through a 3D lookup table.
//
// Defines (set by ColorManagementDrawer::reloadShader):
//   SOURCECOUNT  number of sources, 1 to 4; source i is the sampler Si
//   MODE         1: convert through the table
//   PACKED_DATA  1 when a table is given: a cube of cubesamples^3 colours packed into a 2D
//                texture "lut" of cubesamples^2 x cubesamples texels, slice b at columns
//                b * cubesamples .. (b + 1) * cubesamples - 1, texel (r, g) of the slice holding
//                the colour of the grid point (r, g, b) / (cubesamples - 1)
//
// Per source i, in texture coordinates:
//   source_scale[i], source_trans[i]  the source's coordinates are texCoord0 * scale + trans
//                                     (source 0: scale 1, trans 0)
//   source_delta[i]                   one texel (1 / allocated size)
//   source_res[i]                     the far corner of the image (size / allocated size);
//                                     samples stay half a texel inside it
// packparams: (cubesamples, 1 / packed width, 1 / packed height, 0).

#ifndef PACKED_DATA
#define PACKED_DATA 0
#endif
#ifndef MODE
#define MODE 0
#endif

uniform sampler2D S0;
#if SOURCECOUNT > 1
uniform sampler2D S1;
#endif
#if SOURCECOUNT > 2
uniform sampler2D S2;
#endif
#if SOURCECOUNT > 3
uniform sampler2D S3;
#endif
uniform vec2 source_scale[SOURCECOUNT];
uniform vec2 source_trans[SOURCECOUNT];
uniform vec2 source_delta[SOURCECOUNT];
uniform vec2 source_res[SOURCECOUNT];
#if PACKED_DATA
uniform sampler2D lut;
uniform vec4 packparams;
uniform float cubesamples;
#endif

#if FRAGMENT_PROGRAM

#define SOURCE_COORD(i)                                                             \
    clamp(texCoord0.xy * source_scale[i] + source_trans[i], source_delta[i] * 0.5, \
          source_res[i] - source_delta[i] * 0.5)

#if PACKED_DATA
vec3 lookUp(vec3 c) {
    float n = cubesamples;
    vec3 p = clamp(c, 0.0, 1.0) * (n - 1.0);
    float b0 = floor(p.b);
    float b1 = min(b0 + 1.0, n - 1.0);
    vec2 inSlice = p.rg + vec2(0.5);
    vec3 c0 = texture2D(lut, vec2((b0 * packparams.x + inSlice.x) * packparams.y,
                                  inSlice.y * packparams.z)).rgb;
    vec3 c1 = texture2D(lut, vec2((b1 * packparams.x + inSlice.x) * packparams.y,
                                  inSlice.y * packparams.z)).rgb;
    return mix(c0, c1, p.b - b0);
}
#endif

void main() {
    vec4 c = texture2D(S0, SOURCE_COORD(0));
#if SOURCECOUNT > 1
    vec4 c1 = texture2D(S1, SOURCE_COORD(1));
    c = mix(c, c1, c1.a);
#endif
#if SOURCECOUNT > 2
    vec4 c2 = texture2D(S2, SOURCE_COORD(2));
    c = mix(c, c2, c2.a);
#endif
#if SOURCECOUNT > 3
    vec4 c3 = texture2D(S3, SOURCE_COORD(3));
    c = mix(c, c3, c3.a);
#endif
#if MODE == 1 && PACKED_DATA
    c.rgb = lookUp(c.rgb);
#endif
    gl_FragColor = c * gl_Color;
}

#else

void main() { passThrough(); }

#endif
