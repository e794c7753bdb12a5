-- Parameter database of the demo arm. Built into parameter.db at build time.
-- Every table: ID, NAME, VALUE. A list value starts with '[' and holds
-- comma-separated decimal numbers.
BEGIN TRANSACTION;
CREATE TABLE system_parameters (ID INTEGER PRIMARY KEY NOT NULL, NAME TEXT NOT NULL, VALUE TEXT NOT NULL);
INSERT INTO system_parameters VALUES (1, 'robot_type', 'GL_6L3');
INSERT INTO system_parameters VALUES (2, 'dynamics_switch', 'ON');
INSERT INTO system_parameters VALUES (3, 'gravity_gain', '1.0');
INSERT INTO system_parameters VALUES (4, 'collision_switch', 'ON');
INSERT INTO system_parameters VALUES (5, 'collision_factor', '1.5');
INSERT INTO system_parameters VALUES (6, 'preflight_switch', 'ON');
INSERT INTO system_parameters VALUES (7, 'program_io_switch', 'ON');
INSERT INTO system_parameters VALUES (8, 'cartesian_scaling_switch', 'ON');
INSERT INTO system_parameters VALUES (9, 'braking_switch', 'ON');

CREATE TABLE GL_4L3 (ID INTEGER PRIMARY KEY NOT NULL, NAME TEXT NOT NULL, VALUE TEXT NOT NULL);
INSERT INTO GL_4L3 VALUES (1, 'joint_speed_deg_s', '[90,90,90,120]');
INSERT INTO GL_4L3 VALUES (2, 'joint_acceleration_deg_s2', '[180,180,180,240]');
INSERT INTO GL_4L3 VALUES (3, 'joint_jerk_deg_s3', '[900,900,900,1200]');
INSERT INTO GL_4L3 VALUES (4, 'line_speed_mm_s', '250');
INSERT INTO GL_4L3 VALUES (5, 'line_acceleration_mm_s2', '1000');
INSERT INTO GL_4L3 VALUES (6, 'line_jerk_mm_s3', '5000');
INSERT INTO GL_4L3 VALUES (7, 'rotate_speed_deg_s', '90');
INSERT INTO GL_4L3 VALUES (8, 'rotate_acceleration_deg_s2', '360');
INSERT INTO GL_4L3 VALUES (9, 'rotate_jerk_deg_s3', '1800');
INSERT INTO GL_4L3 VALUES (10, 'joint_reserved', '[0,0,0,0]');
INSERT INTO GL_4L3 VALUES (11, 'joint_direction', '[1,1,-1,1]');
INSERT INTO GL_4L3 VALUES (12, 'kinematic_lengths_mm', '[0,0,0,0,0,0]');
INSERT INTO GL_4L3 VALUES (13, 'dynamic_parameters', '[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0]');
INSERT INTO GL_4L3 VALUES (14, 'identification_parameters', '[0,0,0,0,0,0]');

CREATE TABLE GL_6L3 (ID INTEGER PRIMARY KEY NOT NULL, NAME TEXT NOT NULL, VALUE TEXT NOT NULL);
INSERT INTO GL_6L3 VALUES (1, 'joint_speed_deg_s', '[90,90,90,120,120,120]');
INSERT INTO GL_6L3 VALUES (2, 'joint_acceleration_deg_s2', '[180,180,180,240,240,240]');
INSERT INTO GL_6L3 VALUES (3, 'joint_jerk_deg_s3', '[900,900,900,1200,1200,1200]');
INSERT INTO GL_6L3 VALUES (4, 'line_speed_mm_s', '250');
INSERT INTO GL_6L3 VALUES (5, 'line_acceleration_mm_s2', '1000');
INSERT INTO GL_6L3 VALUES (6, 'line_jerk_mm_s3', '5000');
INSERT INTO GL_6L3 VALUES (7, 'rotate_speed_deg_s', '90');
INSERT INTO GL_6L3 VALUES (8, 'rotate_acceleration_deg_s2', '360');
INSERT INTO GL_6L3 VALUES (9, 'rotate_jerk_deg_s3', '1800');
INSERT INTO GL_6L3 VALUES (10, 'joint_reserved', '[0,0,0,0,0,0]');
INSERT INTO GL_6L3 VALUES (11, 'joint_direction', '[1,1,-1,1,-1,1]');
INSERT INTO GL_6L3 VALUES (12, 'kinematic_lengths_mm', '[152.0,244.0,213.0,112.0,85.0,82.0]');
-- Rows 13 and 14 are filled at build time: the 36 base dynamic parameters
-- and the joints' viscous and Coulomb friction of the simulated arm (from
-- arm.urdf), and the excitation coefficients designed by tql-excite.
INSERT INTO GL_6L3 VALUES (13, 'dynamic_parameters', '[0]');
INSERT INTO GL_6L3 VALUES (14, 'identification_parameters', '[0]');
-- The workspace: the box xmin, xmax, ymin, ymax, zmin, zmax (mm, base frame)
-- the flange and the wrist centre never leave: above the table the arm stands
-- on (z >= 0) and within its reach (an optional row 16 adds half-spaces
-- nx, ny, nz, d: n . p <= d).
INSERT INTO GL_6L3 VALUES (15, 'workspace_box_mm', '[-700,700,-700,700,0,900]');
INSERT INTO GL_6L3 VALUES (17, 'collision_threshold_nm', '[2.5,2.5,2.5,1.6,1.6,1.6]');
INSERT INTO GL_6L3 VALUES (18, 'payload', '[0,0,0,0]');

CREATE TABLE GL_2P8_P6_3P3 (ID INTEGER PRIMARY KEY NOT NULL, NAME TEXT NOT NULL, VALUE TEXT NOT NULL);
INSERT INTO GL_2P8_P6_3P3 VALUES (1, 'joint_speed_deg_s', '[90,90,90,120,120,120]');
INSERT INTO GL_2P8_P6_3P3 VALUES (2, 'joint_acceleration_deg_s2', '[180,180,180,240,240,240]');
INSERT INTO GL_2P8_P6_3P3 VALUES (3, 'joint_jerk_deg_s3', '[900,900,900,1200,1200,1200]');
INSERT INTO GL_2P8_P6_3P3 VALUES (4, 'line_speed_mm_s', '250');
INSERT INTO GL_2P8_P6_3P3 VALUES (5, 'line_acceleration_mm_s2', '1000');
INSERT INTO GL_2P8_P6_3P3 VALUES (6, 'line_jerk_mm_s3', '5000');
INSERT INTO GL_2P8_P6_3P3 VALUES (7, 'rotate_speed_deg_s', '90');
INSERT INTO GL_2P8_P6_3P3 VALUES (8, 'rotate_acceleration_deg_s2', '360');
INSERT INTO GL_2P8_P6_3P3 VALUES (9, 'rotate_jerk_deg_s3', '1800');
INSERT INTO GL_2P8_P6_3P3 VALUES (10, 'joint_reserved', '[0,0,0,0,0,0]');
INSERT INTO GL_2P8_P6_3P3 VALUES (11, 'joint_direction', '[1,1,-1,1,-1,1]');
INSERT INTO GL_2P8_P6_3P3 VALUES (12, 'kinematic_lengths_mm', '[220.0,400.0,350.0,140.0,110.0,95.0]');
INSERT INTO GL_2P8_P6_3P3 VALUES (13, 'dynamic_parameters', '[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0]');
INSERT INTO GL_2P8_P6_3P3 VALUES (14, 'identification_parameters', '[0,0,0,0,0,0]');

CREATE TABLE GL_6L6 (ID INTEGER PRIMARY KEY NOT NULL, NAME TEXT NOT NULL, VALUE TEXT NOT NULL);
INSERT INTO GL_6L6 VALUES (1, 'joint_speed_deg_s', '[90,90,90,120,120,120]');
INSERT INTO GL_6L6 VALUES (2, 'joint_acceleration_deg_s2', '[180,180,180,240,240,240]');
INSERT INTO GL_6L6 VALUES (3, 'joint_jerk_deg_s3', '[900,900,900,1200,1200,1200]');
INSERT INTO GL_6L6 VALUES (4, 'line_speed_mm_s', '250');
INSERT INTO GL_6L6 VALUES (5, 'line_acceleration_mm_s2', '1000');
INSERT INTO GL_6L6 VALUES (6, 'line_jerk_mm_s3', '5000');
INSERT INTO GL_6L6 VALUES (7, 'rotate_speed_deg_s', '90');
INSERT INTO GL_6L6 VALUES (8, 'rotate_acceleration_deg_s2', '360');
INSERT INTO GL_6L6 VALUES (9, 'rotate_jerk_deg_s3', '1800');
INSERT INTO GL_6L6 VALUES (10, 'joint_reserved', '[0,0,0,0,0,0]');
INSERT INTO GL_6L6 VALUES (11, 'joint_direction', '[1,1,-1,1,-1,1]');
INSERT INTO GL_6L6 VALUES (12, 'kinematic_lengths_mm', '[180.0,300.0,260.0,125.0,95.0,90.0]');
INSERT INTO GL_6L6 VALUES (13, 'dynamic_parameters', '[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0]');
INSERT INTO GL_6L6 VALUES (14, 'identification_parameters', '[0,0,0,0,0,0]');

CREATE TABLE GL_2L6_4L3 (ID INTEGER PRIMARY KEY NOT NULL, NAME TEXT NOT NULL, VALUE TEXT NOT NULL);
INSERT INTO GL_2L6_4L3 VALUES (1, 'joint_speed_deg_s', '[90,90,90,120,120,120]');
INSERT INTO GL_2L6_4L3 VALUES (2, 'joint_acceleration_deg_s2', '[180,180,180,240,240,240]');
INSERT INTO GL_2L6_4L3 VALUES (3, 'joint_jerk_deg_s3', '[900,900,900,1200,1200,1200]');
INSERT INTO GL_2L6_4L3 VALUES (4, 'line_speed_mm_s', '250');
INSERT INTO GL_2L6_4L3 VALUES (5, 'line_acceleration_mm_s2', '1000');
INSERT INTO GL_2L6_4L3 VALUES (6, 'line_jerk_mm_s3', '5000');
INSERT INTO GL_2L6_4L3 VALUES (7, 'rotate_speed_deg_s', '90');
INSERT INTO GL_2L6_4L3 VALUES (8, 'rotate_acceleration_deg_s2', '360');
INSERT INTO GL_2L6_4L3 VALUES (9, 'rotate_jerk_deg_s3', '1800');
INSERT INTO GL_2L6_4L3 VALUES (10, 'joint_reserved', '[0,0,0,0,0,0]');
INSERT INTO GL_2L6_4L3 VALUES (11, 'joint_direction', '[1,1,-1,1,-1,1]');
INSERT INTO GL_2L6_4L3 VALUES (12, 'kinematic_lengths_mm', '[170.0,280.0,240.0,120.0,90.0,85.0]');
INSERT INTO GL_2L6_4L3 VALUES (13, 'dynamic_parameters', '[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0]');
INSERT INTO GL_2L6_4L3 VALUES (14, 'identification_parameters', '[0,0,0,0,0,0]');

CREATE TABLE FREE_COMBINATION (ID INTEGER PRIMARY KEY NOT NULL, NAME TEXT NOT NULL, VALUE TEXT NOT NULL);
INSERT INTO FREE_COMBINATION VALUES (1, 'joint_speed_deg_s', '[90,90,90,120,120,120]');
INSERT INTO FREE_COMBINATION VALUES (2, 'joint_acceleration_deg_s2', '[180,180,180,240,240,240]');
INSERT INTO FREE_COMBINATION VALUES (3, 'joint_jerk_deg_s3', '[900,900,900,1200,1200,1200]');
INSERT INTO FREE_COMBINATION VALUES (4, 'line_speed_mm_s', '250');
INSERT INTO FREE_COMBINATION VALUES (5, 'line_acceleration_mm_s2', '1000');
INSERT INTO FREE_COMBINATION VALUES (6, 'line_jerk_mm_s3', '5000');
INSERT INTO FREE_COMBINATION VALUES (7, 'rotate_speed_deg_s', '90');
INSERT INTO FREE_COMBINATION VALUES (8, 'rotate_acceleration_deg_s2', '360');
INSERT INTO FREE_COMBINATION VALUES (9, 'rotate_jerk_deg_s3', '1800');
INSERT INTO FREE_COMBINATION VALUES (10, 'joint_reserved', '[0,0,0,0,0,0]');
INSERT INTO FREE_COMBINATION VALUES (11, 'joint_direction', '[1,1,-1,1,-1,1]');
INSERT INTO FREE_COMBINATION VALUES (12, 'kinematic_lengths_mm', '[0,0,0,0,0,0]');
INSERT INTO FREE_COMBINATION VALUES (13, 'dynamic_parameters', '[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0]');
INSERT INTO FREE_COMBINATION VALUES (14, 'identification_parameters', '[0,0,0,0,0,0]');
COMMIT;
