/*
 * ray_dispatch.h - the CPU render pipeline: a control thread, 1 to 64 ray
 * workers and a draw thread linked by anonymous pipes.
 */
#ifndef VOXELUNE_CPU_RAY_DISPATCH_H
#define VOXELUNE_CPU_RAY_DISPATCH_H

/* Makes the pipes and starts the threads; 1 on success, 0 at the first failure. */
int Ray_CPU_Init(unsigned short n);
/* Posts a render request for slot; returns at once. */
int Ray_CPU_Start(unsigned short slot);
/* Stops slot 1..31, or every slot for 0; above 31 only pauses. */
int Ray_CPU_Stop(unsigned short slot);
void Wait_For_Threads();
/* Makes every thread leave, joins them and releases the pipeline. */
int Ray_CPU_Exit();

#endif
