// The common part of every filter shader, compiled after the header that the renderer puts in
// front of each stage:
//     #version 110, the shader's own defines, DEBUG (0 unless the defines set it) and
//     FRAGMENT_PROGRAM (1 in the fragment stage, 0 in the vertex stage).
// A filter file holds both stages and tells them apart with FRAGMENT_PROGRAM.

// Texture coordinates handed from the vertex to the fragment stage.
varying vec4 texCoord0;

#if FRAGMENT_PROGRAM

// Rec. 709 luminance of a linear colour.
float luminance(vec3 c) {
    return dot(c, vec3(0.2126, 0.7152, 0.0722));
}

// Clamps into [0, 1]; with DEBUG, values outside show in magenta instead.
vec4 clampColor(vec4 c) {
#if DEBUG
    if (any(lessThan(c, vec4(0.0))) || any(greaterThan(c, vec4(1.0))))
        return vec4(1.0, 0.0, 1.0, 1.0);
#endif
    return clamp(c, 0.0, 1.0);
}

#else

// The fixed-function transform and the first texture coordinates and colour, passed on.
void passThrough() {
    gl_Position = ftransform();
    texCoord0 = gl_MultiTexCoord0;
    gl_FrontColor = gl_Color;
}

#endif
