#include "tools/GameFrames.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace kestrium::tools {

namespace {

uint32_t hash(int32_t x, int32_t y, uint32_t seed) {
  uint32_t h = static_cast<uint32_t>(x) * 0x8DA6B343u ^ static_cast<uint32_t>(y) * 0xD8163841u ^ seed * 0xCB1AB31Fu;
  h ^= h >> 13;
  h *= 0x85EBCA6Bu;
  h ^= h >> 16;
  return h;
}

float lattice(int32_t x, int32_t y, uint32_t seed) { return static_cast<float>(hash(x, y, seed) & 0xFFFF) / 65535.0f; }

// Smooth value noise in 0..1.
float noise(float x, float y, uint32_t seed) {
  const float fx = std::floor(x), fy = std::floor(y);
  const auto ix = static_cast<int32_t>(fx), iy = static_cast<int32_t>(fy);
  float tx = x - fx, ty = y - fy;
  tx = tx * tx * (3 - 2 * tx);
  ty = ty * ty * (3 - 2 * ty);
  const float a = lattice(ix, iy, seed), b = lattice(ix + 1, iy, seed);
  const float c = lattice(ix, iy + 1, seed), d = lattice(ix + 1, iy + 1, seed);
  return (a + (b - a) * tx) + ((c + (d - c) * tx) - (a + (b - a) * tx)) * ty;
}

float fbm(float x, float y, uint32_t seed, int octaves) {
  float sum = 0, amp = 0.5f, norm = 0;
  for (int o = 0; o < octaves; ++o) {
    sum += amp * noise(x, y, seed + static_cast<uint32_t>(o));
    norm += amp;
    x *= 2.03f;
    y *= 2.03f;
    amp *= 0.5f;
  }
  return sum / norm;
}

struct Rgb {
  float r, g, b;
};

Rgb mix(Rgb a, Rgb b, float t) { return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t}; }

uint8_t clampByte(float v) { return static_cast<uint8_t>(std::clamp(v, 0.0f, 255.0f) + 0.5f); }

void put(uint8_t* rgb, uint32_t width, uint32_t x, uint32_t y, Rgb c) {
  uint8_t* p = rgb + (size_t{y} * width + x) * 3;
  p[0] = clampByte(c.r);
  p[1] = clampByte(c.g);
  p[2] = clampByte(c.b);
}

void fillRect(uint8_t* rgb, uint32_t width, uint32_t height, int x0, int y0, int w, int h, Rgb c, float alpha) {
  for (int y = std::max(y0, 0); y < std::min(y0 + h, static_cast<int>(height)); ++y) {
    for (int x = std::max(x0, 0); x < std::min(x0 + w, static_cast<int>(width)); ++x) {
      uint8_t* p = rgb + (static_cast<size_t>(y) * width + static_cast<size_t>(x)) * 3;
      p[0] = clampByte(p[0] + (c.r - p[0]) * alpha);
      p[1] = clampByte(p[1] + (c.g - p[1]) * alpha);
      p[2] = clampByte(p[2] + (c.b - p[2]) * alpha);
    }
  }
}

}  // namespace

// A third-person scene: a sky with drifting clouds, a mountain range, a textured
// ground plane in perspective with a road, lit spheres and boxes, and a flat HUD
// with bars, text-like glyphs and a minimap. The camera moves with the frame
// index, so consecutive frames differ as they do in a game.
void renderGameFrame(uint32_t width, uint32_t height, uint32_t index, uint8_t* rgb) {
  if (width == 0 || height == 0) return;
  const float t = static_cast<float>(index);
  const float scale = static_cast<float>(height) / 1080.0f;
  const float horizon = static_cast<float>(height) * 0.42f;
  const float camX = t * 0.9f, camZ = t * 0.35f;
  const Rgb skyTop{38, 92, 178}, skyLow{170, 205, 235}, cloud{246, 247, 250};
  const Rgb grass{62, 118, 40}, dirt{120, 96, 64}, road{78, 78, 84}, stripe{230, 220, 120};
  const Rgb rock{92, 98, 118}, snow{232, 236, 244};

  for (uint32_t y = 0; y < height; ++y) {
    const float fy = static_cast<float>(y);
    for (uint32_t x = 0; x < width; ++x) {
      const float fx = static_cast<float>(x);
      Rgb c;
      if (fy < horizon) {
        const float g = fy / horizon;
        c = mix(skyTop, skyLow, g * g);
        const float cl = fbm((fx / scale + t * 2.0f) / 260.0f, fy / scale / 110.0f, 7, 4);
        c = mix(c, cloud, std::clamp((cl - 0.55f) * 3.0f, 0.0f, 0.9f));
        const float ridge = horizon - (60 + 150 * fbm((fx / scale + t * 0.6f) / 420.0f, 3.7f, 11, 5)) * scale;
        if (fy > ridge) {
          const float shade = fbm((fx / scale + t * 0.6f) / 30.0f, fy / scale / 30.0f, 13, 3);
          c = mix(rock, snow, std::clamp((ridge + 40 * scale - fy) / (40 * scale), 0.0f, 1.0f));
          c = mix(c, Rgb{40, 44, 56}, shade * 0.5f);
        }
      } else {
        // Ground plane: depth from the row, texture coordinates from depth.
        const float z = 240.0f * scale / (fy - horizon + 1.0f);
        const float u = (fx - static_cast<float>(width) / 2) * z / (200.0f * scale) + camX * 0.02f;
        const float v = z + camZ * 0.05f;
        const float tex = fbm(u * 3.0f, v * 3.0f, 21, 4);
        const float detail = lattice(static_cast<int32_t>(u * 64.0f), static_cast<int32_t>(v * 64.0f), 23);
        c = mix(grass, dirt, std::clamp((tex - 0.45f) * 2.5f, 0.0f, 1.0f));
        c = mix(c, Rgb{c.r * 0.8f, c.g * 0.85f, c.b * 0.8f}, detail * std::min(1.0f, 2.0f / (z + 0.5f)));
        if (std::fabs(u - camX * 0.02f) < 0.9f) {
          c = mix(road, Rgb{90, 90, 96}, tex);
          if (std::fabs(u - camX * 0.02f) < 0.05f && std::fmod(v * 2.0f, 2.0f) < 1.0f) c = stripe;
        }
        const float fog = std::clamp(z / 30.0f, 0.0f, 1.0f);
        c = mix(c, skyLow, fog * 0.7f);
      }
      // Houses along the road: brick walls in perspective, with windows and
      // gaps between the houses.
      const float dx = std::fabs(fx - static_cast<float>(width) / 2);
      if (dx > 4) {
        const float zw = 200.0f * scale * 2.6f / dx;  // depth of the wall seen in this column
        const float along = zw + camZ * 0.05f;
        const float house = std::floor(along / 3.0f);
        const float storeys = 1.5f + static_cast<float>(hash(static_cast<int32_t>(house), fx < static_cast<float>(width) / 2, 41) % 3);
        const float bottom = horizon + 240.0f * scale / zw;
        const float top = horizon - (storeys - 1.0f) * 240.0f * scale / zw;
        const bool gap = std::fmod(along, 3.0f) > 2.5f;
        if (zw < 45.0f && !gap && fy >= top && fy < bottom) {
          const float up = (bottom - fy) * zw / (240.0f * scale);  // height above the ground
          const uint32_t tone = hash(static_cast<int32_t>(house), 7, 43);
          const Rgb wall{static_cast<float>(150 + tone % 60), static_cast<float>(70 + (tone >> 8) % 40),
                         static_cast<float>(50 + (tone >> 16) % 30)};
          const float row = std::floor(up / 0.09f);
          const float brickAlong = along + (static_cast<int>(row) % 2 != 0 ? 0.11f : 0.0f);
          const bool mortar = up - row * 0.09f < 0.015f || std::fmod(brickAlong, 0.22f) < 0.02f;
          const float grain = lattice(static_cast<int32_t>(brickAlong / 0.22f), static_cast<int32_t>(row), 47);
          c = mortar ? Rgb{170, 165, 155} : mix(wall, Rgb{wall.r * 0.7f, wall.g * 0.7f, wall.b * 0.7f}, grain * 0.6f);
          const float wx = std::fmod(along, 3.0f), wy = std::fmod(up, 1.0f);
          if (wx > 0.6f && wx < 1.9f && wy > 0.35f && wy < 0.8f) {
            c = mix(Rgb{40, 60, 90}, Rgb{150, 190, 220}, std::clamp((wy - 0.35f) * 2.2f, 0.0f, 1.0f));
          }
          // The side of a wall turned to the light, and the haze of distance.
          if (fx > static_cast<float>(width) / 2) c = Rgb{c.r * 0.78f, c.g * 0.78f, c.b * 0.8f};
          c = mix(c, skyLow, std::clamp(zw / 45.0f, 0.0f, 1.0f) * 0.6f);
        }
      }
      put(rgb, width, x, y, c);
    }
  }

  // Lit spheres standing on the ground, moving across with the camera.
  const float lx = -0.5f, ly = -0.6f, lz = 0.62f;
  for (int s = 0; s < 5; ++s) {
    const float cx = std::fmod(static_cast<float>(s) * 430.0f * scale - t * 3.0f * (1 + static_cast<float>(s) * 0.2f) +
                                   10 * static_cast<float>(width),
                               static_cast<float>(width) + 300 * scale) -
                     150 * scale;
    const float r = (50 + 25 * static_cast<float>(s % 3)) * scale;
    const float cy = horizon + (120 + 90 * static_cast<float>(s % 4)) * scale;
    const Rgb base{static_cast<float>(hash(s, 1, 5) % 200 + 40), static_cast<float>(hash(s, 2, 5) % 200 + 40),
                   static_cast<float>(hash(s, 3, 5) % 200 + 40)};
    for (int y = static_cast<int>(cy - r); y <= static_cast<int>(cy + r); ++y) {
      for (int x = static_cast<int>(cx - r); x <= static_cast<int>(cx + r); ++x) {
        if (x < 0 || y < 0 || x >= static_cast<int>(width) || y >= static_cast<int>(height)) continue;
        const float dx = (static_cast<float>(x) - cx) / r, dy = (static_cast<float>(y) - cy) / r;
        const float d2 = dx * dx + dy * dy;
        if (d2 > 1) continue;
        const float dz = std::sqrt(1 - d2);
        const float lambert = std::max(0.0f, dx * lx + dy * ly + dz * lz);
        const float shine = std::pow(std::max(0.0f, dz * 0.9f + dx * lx * 0.3f), 40.0f);
        const float k = 0.25f + 0.75f * lambert;
        put(rgb, width, static_cast<uint32_t>(x), static_cast<uint32_t>(y),
            Rgb{base.r * k + 255 * shine, base.g * k + 255 * shine, base.b * k + 255 * shine});
      }
    }
  }

  // Crates: flat-shaded faces with plank lines.
  for (int b = 0; b < 3; ++b) {
    const int size = static_cast<int>((90 + 30 * b) * scale);
    const int bx = static_cast<int>(std::fmod(static_cast<float>(b) * 700 * scale + t * 2.2f,
                                              static_cast<float>(width) + static_cast<float>(size))) -
                   size;
    const int by = static_cast<int>(horizon + (200 + 140 * b) * scale);
    fillRect(rgb, width, height, bx, by, size, size, Rgb{150, 105, 60}, 1.0f);
    fillRect(rgb, width, height, bx + size, by - size / 4, size / 4, size, Rgb{105, 72, 40}, 1.0f);
    fillRect(rgb, width, height, bx + size / 4, by - size / 4, size, size / 4, Rgb{185, 140, 90}, 1.0f);
    for (int k = 1; k < 4; ++k) fillRect(rgb, width, height, bx, by + k * size / 4, size, 2, Rgb{90, 60, 30}, 1.0f);
  }

  // HUD: translucent panels, bars, glyph rows, a minimap and a crosshair.
  const int w = static_cast<int>(width), h = static_cast<int>(height);
  const auto px = [scale](float v) { return static_cast<int>(v * scale); };
  fillRect(rgb, width, height, px(30), h - px(130), px(460), px(100), Rgb{10, 12, 16}, 0.55f);
  const float health = 0.35f + 0.3f * (1 + std::sin(t * 0.05f));
  fillRect(rgb, width, height, px(50), h - px(110), px(420), px(24), Rgb{60, 20, 20}, 1.0f);
  fillRect(rgb, width, height, px(50), h - px(110), static_cast<int>(px(420) * health / 1.0f * 0.95f), px(24),
           Rgb{200, 40, 40}, 1.0f);
  fillRect(rgb, width, height, px(50), h - px(74), px(420), px(16), Rgb{20, 30, 70}, 1.0f);
  fillRect(rgb, width, height, px(50), h - px(74), px(300), px(16), Rgb{60, 120, 230}, 1.0f);
  for (int line = 0; line < 3; ++line) {
    for (int ch = 0; ch < 22; ++ch) {
      const uint32_t glyph = hash(ch + line * 40, static_cast<int32_t>(index / 30), 99);
      for (int gy = 0; gy < 7; ++gy) {
        for (int gx = 0; gx < 5; ++gx) {
          if (((glyph >> ((gy * 5 + gx) % 31)) & 1u) == 0) continue;
          fillRect(rgb, width, height, w - px(520) + ch * px(22) + gx * px(3), px(30) + line * px(34) + gy * px(3),
                   std::max(px(3), 1), std::max(px(3), 1), Rgb{235, 235, 210}, 1.0f);
        }
      }
    }
  }
  const int map = px(220);
  fillRect(rgb, width, height, w - map - px(30), h - map - px(30), map, map, Rgb{20, 40, 24}, 0.8f);
  fillRect(rgb, width, height, w - map / 2 - px(30) - px(4), h - map / 2 - px(30) - px(4), px(8), px(8),
           Rgb{250, 250, 60}, 1.0f);
  fillRect(rgb, width, height, w / 2 - px(12), h / 2 - 1, px(24), 2, Rgb{255, 255, 255}, 0.9f);
  fillRect(rgb, width, height, w / 2 - 1, h / 2 - px(12), 2, px(24), Rgb{255, 255, 255}, 0.9f);
}

}  // namespace kestrium::tools
