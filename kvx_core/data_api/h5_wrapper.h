#pragma once
// The HDF5 object layer in one include: H5Object, H5Group, H5File, H5Dataset and h5Mutex.

#include "data_api/h5_dataset.h"
#include "data_api/h5_file.h"
#include "data_api/h5_group.h"
#include "data_api/h5_object.h"
