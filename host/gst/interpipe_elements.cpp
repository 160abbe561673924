// Registers the interpipe stand-in elements.
#include "standins.h"

gboolean RegisterInterpipeElements(GstPlugin* /*plugin*/)
{
    return TRUE;
}
