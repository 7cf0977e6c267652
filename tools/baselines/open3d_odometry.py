#!/usr/bin/env python3
"""Open3D's frame-to-frame RGB-D odometry (hybrid photometric and geometric term) chained over a
recording, written as a TUM trajectory: the baseline the README's table compares kestor with.

    /usr/bin/python3 tools/baselines/open3d_odometry.py SEQUENCE_DIR OUT.txt [--max-frames N]
    build/tools/kestor evaluate OUT.txt SEQUENCE_DIR

Reads the same layouts as `kestor reconstruct`: TUM/synthetic folders with associations.txt, and
7-Scenes folders. Needs Debian's python3-open3d.
"""
import argparse
import glob
import os
import time

import numpy as np
import open3d as o3d


def frames_of(folder):
    """(timestamp, depth path, colour path) per frame, and the camera (fx, fy, cx, cy, scale)."""
    camera = [525.0, 525.0, 319.5, 239.5, 5000.0]
    frames = []
    assoc = os.path.join(folder, "associations.txt")
    if os.path.exists(assoc):
        for line in open(assoc):
            f = line.split()
            if f and not f[0].startswith("#"):
                frames.append((float(f[0]), os.path.join(folder, f[1]), os.path.join(folder, f[3])))
        intr = os.path.join(folder, "intrinsics.txt")
        if os.path.exists(intr):
            rows = [l.split() for l in open(intr) if l.strip() and not l.startswith("#")]
            camera = [float(v) for v in rows[0][:4]] + [float(rows[0][6])]
    else:
        camera = [585.0, 585.0, 320.0, 240.0, 1000.0]
        for i, depth in enumerate(sorted(glob.glob(os.path.join(folder, "frame-*.depth.png")))):
            base = depth[: -len(".depth.png")]
            colour = base + ".color.png" if os.path.exists(base + ".color.png") else base + ".color.jpg"
            frames.append((i / 30.0, depth, colour))
    return frames, camera


def rgbd(depth_path, colour_path, scale):
    colour = o3d.io.read_image(colour_path)
    depth = o3d.io.read_image(depth_path)
    return o3d.geometry.RGBDImage.create_from_color_and_depth(
        colour, depth, depth_scale=scale, depth_trunc=4.0, convert_rgb_to_intensity=True)


def quaternion(R):
    w = np.sqrt(max(0.0, 1.0 + R[0, 0] + R[1, 1] + R[2, 2])) / 2.0
    x = np.copysign(np.sqrt(max(0.0, 1.0 + R[0, 0] - R[1, 1] - R[2, 2])) / 2.0, R[2, 1] - R[1, 2])
    y = np.copysign(np.sqrt(max(0.0, 1.0 - R[0, 0] + R[1, 1] - R[2, 2])) / 2.0, R[0, 2] - R[2, 0])
    z = np.copysign(np.sqrt(max(0.0, 1.0 - R[0, 0] - R[1, 1] + R[2, 2])) / 2.0, R[1, 0] - R[0, 1])
    return x, y, z, w


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("sequence")
    parser.add_argument("output")
    parser.add_argument("--max-frames", type=int, default=0)
    args = parser.parse_args()
    frames, (fx, fy, cx, cy, scale) = frames_of(args.sequence)
    if args.max_frames > 0:
        frames = frames[: args.max_frames]
    width, height = o3d.io.read_image(frames[0][1]).get_max_bound().astype(int)
    intrinsic = o3d.camera.PinholeCameraIntrinsic(int(width), int(height), fx, fy, cx, cy)
    option = o3d.pipelines.odometry.OdometryOption()
    jacobian = o3d.pipelines.odometry.RGBDOdometryJacobianFromHybridTerm()
    pose = np.eye(4)
    lines = ["# timestamp tx ty tz qx qy qz qw"]
    previous = None
    failures = 0
    start = time.time()
    for stamp, depth_path, colour_path in frames:
        current = rgbd(depth_path, colour_path, scale)
        if previous is not None:
            # Pose of the current frame in the previous one's coordinates.
            ok, step, _ = o3d.pipelines.odometry.compute_rgbd_odometry(
                current, previous, intrinsic, np.eye(4), jacobian, option)
            if ok:
                pose = pose @ step
            else:
                failures += 1
        t = pose[:3, 3]
        lines.append("%.6f %.6f %.6f %.6f %.6f %.6f %.6f %.6f" % ((stamp, *t, *quaternion(pose[:3, :3]))))
        previous = current
    open(args.output, "w").write("\n".join(lines) + "\n")
    seconds = time.time() - start
    print("open3d odometry: %d frames, %d failed steps, %.1f s (%.1f fps)"
          % (len(frames), failures, seconds, len(frames) / seconds))


if __name__ == "__main__":
    main()
