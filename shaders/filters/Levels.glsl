// Levels: each colour channel of the source times a gain plus an offset; alpha passes unchanged.
// Nothing is clamped, so float targets keep values outside [0, 1].
//
// Uniforms:
//   S0      the source
//   gain    the factor of red, green and blue
//   offset  added to red, green and blue after the gain

uniform sampler2D S0;
uniform vec3 gain;
uniform vec3 offset;

#if FRAGMENT_PROGRAM

void main() {
    vec4 c = texture2D(S0, texCoord0.xy);
    gl_FragColor = vec4(c.rgb * gain + offset, c.a);
}

#else

void main() {
    passThrough();
}

#endif
