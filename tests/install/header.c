#include <quillmere/quillmere.h>
