// quenlib.h: the umbrella header; includes every public class family.
//
//   #include <quenlib/quenlib.h>
//   using namespace QuenLibA500;
#pragma once

#include <quenlib/quenlib_export.h>
#include <quenlib/types.h>
#include <quenlib/version.h>
#include <quenlib/slogger.h>
