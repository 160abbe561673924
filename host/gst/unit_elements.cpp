// Registers the unit stand-in elements.
#include "standins.h"

gboolean RegisterUnitElements(GstPlugin* /*plugin*/)
{
    return TRUE;
}
