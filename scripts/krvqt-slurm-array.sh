#!/usr/bin/env bash
#SBATCH --job-name=krvqt
#SBATCH --nodes=1
#SBATCH --ntasks=1
#SBATCH --exclusive
#SBATCH --requeue
#SBATCH --open-mode=append
# Runs a list of jobs as a Slurm job array: each task of the array does its share on a node of its own. See
# Documentation/batch.md.
#
# Usage: sbatch --array=1-TASKS krvqt-slurm-array.sh LIST [TASKS]
#
# TASKS is needed only to submit a part of the array again, such as --array=3. The node is not shared with other jobs,
# because when a job ends, Slurm also ends the media server that it has started.
set -euo pipefail

list=${1:?the list of jobs is missing}
tasks=${2:-$SLURM_ARRAY_TASK_COUNT}
# exec, so that a signal from Slurm reaches krvqt, which then cancels its work and notes that.
exec "${KRVQT:-krvqt}" batch "$list" --task "$SLURM_ARRAY_TASK_ID/$tasks" \
    --results "${list%.jsonl}.results.$SLURM_ARRAY_TASK_ID.jsonl"
