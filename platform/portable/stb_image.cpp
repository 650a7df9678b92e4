// The one translation unit that holds stb_image's implementation. It is built without our warning
// flags (see the top CMakeLists.txt): the code is stb's, not ours.
#define STB_IMAGE_IMPLEMENTATION
#define STBI_NO_STDIO
#define STBI_ONLY_PNG
#define STBI_ONLY_GIF
#define STBI_ONLY_BMP
#define STBI_ONLY_JPEG
#include <stb/stb_image.h>
