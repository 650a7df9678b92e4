// The one translation unit that holds stb_image's implementation. It is built without our warning
// flags (see the top CMakeLists.txt): the code is stb's, not ours. JPEG files go to libjpeg-turbo
// instead (jpeg_decoding.h).
#include "platform/portable/stb_allocation.h"

#define STB_IMAGE_IMPLEMENTATION
#define STBI_MALLOC(size) tabforge::portable::StbMalloc(size)
#define STBI_REALLOC(block, size) tabforge::portable::StbRealloc(block, size)
#define STBI_FREE(block) tabforge::portable::StbFree(block)
#define STBI_NO_STDIO
#define STBI_ONLY_PNG
#define STBI_ONLY_GIF
#define STBI_ONLY_BMP
#include <stb/stb_image.h>
