// Turns a packed 32-bit RGB frame about its centre by any angle (the levelling stand-in's picture).
#pragma once

#include <gst/video/video.h>

// True for the formats RotateFrame handles: one plane of 4-byte RGB pixels (RGBA, BGRx, ARGB, ...).
bool CanRotateFrames(const GstVideoInfo* info);

// Writes `in` turned clockwise on screen by `degrees` into `out` (same format and size): each output pixel
// takes the nearest input pixel, and what comes from outside the input is opaque black.
void RotateFrame(const GstVideoFrame* in, GstVideoFrame* out, double degrees);
