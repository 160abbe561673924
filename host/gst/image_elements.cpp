// Registers the image stand-in elements.
#include "standins.h"

gboolean RegisterImageElements(GstPlugin* /*plugin*/)
{
    return TRUE;
}
