/*
 * records.h - record conversions that the read functions use beyond the exported converters.
 */
#ifndef ANALYTICSDB_INTERNAL_RECORDS_H
#define ANALYTICSDB_INTERNAL_RECORDS_H

#include <cstdint>

#include "analyticsdb.h"

namespace adb {

// Adds the cells of a raw week result (index columns and some days' slot columns) to the records
// of the same devices in `list`, as if they had been part of the result the records came from:
// each slot cell lands by its "SLOT"k column name, NULL cells leave their slots alone, and every
// slot column counts towards slotCount. Rows of devices that `list` lacks are skipped.
void mergeWeekCells(BandWidthRecord **list, int32_t rows, char **cells, int32_t rowCount,
                    int32_t columnCount);

}  // namespace adb

#endif
