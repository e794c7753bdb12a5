// Runners of a program's move table: played one after another, blended, or
// stepped FORWARD / BACKWARD by the operator. Each streams one joint-position
// command every 4 ms and stops within one period when the stop flag is set.
//
// Included at the end of interpolation.h; InterpolationData itself is
// declared in program.h.
#ifndef TQL_PATH_LIST_H
#define TQL_PATH_LIST_H

class Robot;
struct InterpolationData;

// Reads the arm's joints into the first move's start, prepares every move and
// sets the blend length of each junction to the smaller of the neighbours'
// deceleration and acceleration phases. Always 0.
int PathListPreprocess(Robot* robot, InterpolationData* table, int count);

// Each move comes to rest before the next. 0, or -1 when stopped or failed.
// With system row 8 ON the moves are first slowed down where the run would
// take a joint beyond its limits (InterpolationData::slow_down; see
// CartesianScalingWanted), as are those of a blended run.
int MovePathList(Robot* robot, InterpolationData* table, int count);

// Consecutive moves overlap: the tail of one and the head of the next are
// superposed over their blend length. 0, or -1.
int MovePathListSmooth(Robot* robot, InterpolationData* table, int count);

// Operator-driven stepping through the targets; ends only with -1 (the
// operator left, or a move failed).
int ReplayPathStep(Robot* robot, InterpolationData* table, int count);

#endif  // TQL_PATH_LIST_H
